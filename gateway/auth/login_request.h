// What the login sees of the request for which it is asked, beyond the record of
// platform/kavro_mgr_bus.h, and what it tells the HTTP service back. The service sets the current
// one on the thread that hands a request to the module; the module asks the login on the same
// thread.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace qn {

// Who a request comes from, as the configuration knew them when they logged in.
struct LoggedIn {
  std::string user;
  std::string ha1;  // changes with the password
  std::string device;
};

class LoginRequest {
 public:
  // Null where no service has set one.
  static LoginRequest* current() { return current_; }

  // While it lives, `request` is the thread's current one.
  class Scope {
   public:
    explicit Scope(LoginRequest& request) { current_ = &request; }
    ~Scope() { current_ = nullptr; }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
  };

  // The record has room for 17 bytes of it.
  virtual std::string_view clientAddress() const = 0;
  // Who has logged in; empty before that.
  virtual std::string user() const = 0;
  // The login has succeeded. `info` is the Authentication-Info of the answer.
  virtual void loggedIn(LoggedIn who, const std::string& info) = 0;
  // Has it called with the status when the answer goes out, on any thread, at most once; not when
  // the client is gone by then. One call at most counts: the last before the answer.
  virtual void onAnswer(std::function<void(int status)> call) = 0;

 protected:
  ~LoginRequest() = default;

 private:
  inline static thread_local LoginRequest* current_ = nullptr;
};

}  // namespace qn
