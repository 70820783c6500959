// The I/O threads of the gateway: one io_context with one thread for each core. The HTTP service
// and the device-configuration bus live on them; a connection stays on the reactor it was given to.
#pragma once

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace qn {

// Nothing that runs on a reactor may block. An exception that leaves a handler is logged nowhere
// and ends the process: handlers catch their own.
class Reactors {
 public:
  static constexpr int kNone = -1;

  // `name` is that of the threads, with their numbers behind it.
  explicit Reactors(std::size_t count = std::thread::hardware_concurrency(),
                    std::string name = "reactor");
  ~Reactors();  // stops
  Reactors(const Reactors&) = delete;
  Reactors& operator=(const Reactors&) = delete;

  void start();
  // Ends the threads after the handler each is running; handlers still queued are destroyed by
  // the destructor; they may own sockets and timers of any reactor. Never call it on a reactor
  // thread. Harmless when repeated.
  void stop();

  bool isRunning() const { return !threads_.empty(); }  // by the thread that starts and stops
  std::size_t size() const { return contexts_.size(); }
  boost::asio::io_context& context(std::size_t index) { return *contexts_[index]; }

  // The index of the reactor whose thread this is; kNone on other threads.
  static int current();

 private:
  // Shows what the destructor needs: destroying the queued handlers without the context.
  class Context : public boost::asio::io_context {
   public:
    using io_context::io_context;
    using io_context::shutdown;
  };
  using Guard = boost::asio::executor_work_guard<boost::asio::io_context::executor_type>;

  const std::string name_;
  std::vector<std::unique_ptr<Context>> contexts_;  // constant after construction
  std::vector<Guard> guards_;
  std::vector<std::thread> threads_;
};

}  // namespace qn
