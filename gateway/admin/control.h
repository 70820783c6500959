// The way of the commands to the running gateway: a socket in its data folder, which the same user
// and root reach without a password, and nobody else. The host opens it; the commands ask there.
//
// One order a connection, as a line; the answer is a JSON document up to the connection's end:
//   reload           {"taken": true}, or {"taken": false, "reason": "..."}
//   locks            [{"address": "192.0.2.7", "seconds": 1700}, ...]
//   unlock ADDRESS   {"unlocked": true} when it was locked
// and {"error": "..."} for all that cannot be done.
#pragma once

#include <json/value.h>
#include <pthread.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>

#include "gateway/admin/reloads.h"
#include "gateway/login/login.h"

namespace qn {

inline constexpr char kControlName[] = "control";  // of the socket
inline constexpr std::size_t kOrderBytes = 256;
inline constexpr std::size_t kAnswerBytes = 1024 * 1024;
inline constexpr std::size_t kAnsweredLocks = 4096;
inline constexpr std::chrono::seconds kOrderTime{1};  // for a whole order to arrive

// On the host's one thread; orders are done one after the other on a thread of its own.
class ControlSocket {
 public:
  ControlSocket(Login& login, Reloads& reloads) : login_(login), reloads_(reloads) {}
  ~ControlSocket() { close(); }
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;

  // In a folder that this process has for itself. Throws std::system_error.
  void open(const std::filesystem::path& folder);
  // Waits for an order that is being done. Harmless when repeated.
  void close();

 private:
  void serve() const;
  void serveOne() const;
  std::string done(const std::string& order) const;
  Json::Value reload() const;
  Json::Value locks() const;
  Json::Value unlock(const std::string& shown) const;

  Login& login_;
  Reloads& reloads_;
  int listener_ = -1;
  int stop_ = -1;  // readable when the thread is to end
  pthread_t thread_{};
};

// What the gateway with this data folder answers. Throws std::system_error: ENOENT or ECONNREFUSED
// when none is running, EACCES when it belongs to another user, EAGAIN when it does not answer.
// Blocks for at most Reloads::kWait and 5 s.
std::string askGateway(const std::filesystem::path& folder, const std::string& order);

}  // namespace qn
