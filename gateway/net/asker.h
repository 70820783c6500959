// Who waits for what the calling thread is about to have done. The HTTP service says so around the
// module; the device-configuration bus, which the module calls, remembers it with the request.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <utility>

namespace qn {

class Asker {
 public:
  virtual ~Asker() = default;
  // Nobody takes the answer any more, or hardly anybody: a client that has ended its side may still
  // read, but most have gone. Any thread; never becomes false again.
  virtual bool isGone() const = 0;
  // A device was waited for that long, queueing included. Any thread.
  virtual void waited(std::chrono::nanoseconds time) const = 0;
};

// On the thread that makes it, until it is destroyed.
class AskerScope {
 public:
  explicit AskerScope(std::weak_ptr<const Asker> asker)
      : former_(std::exchange(current(), std::move(asker))) {}
  ~AskerScope() { current() = std::move(former_); }
  AskerScope(const AskerScope&) = delete;
  AskerScope& operator=(const AskerScope&) = delete;

  // None outside of any scope.
  static std::optional<std::weak_ptr<const Asker>>& current() {
    thread_local std::optional<std::weak_ptr<const Asker>> asker;
    return asker;
  }

 private:
  std::optional<std::weak_ptr<const Asker>> former_;
};

}  // namespace qn
