// See control.h.
#include "gateway/admin/control.h"

#include <fcntl.h>
#include <json/json.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <system_error>
#include <utility>

#include "gateway/config/text_rules.h"
#include "gateway/log/log.h"
#include "gateway/net/thread.h"

namespace qn {
namespace {

constexpr int kBacklog = 16;
constexpr timeval kAnswerTime{Reloads::kWait.count() + 5, 0};

[[noreturn]] void fail(const std::filesystem::path& folder) {
  throw std::system_error(errno, std::generic_category(), (folder / kControlName).string());
}

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() {
    if (number_ >= 0) ::close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return number_; }
  int release() { return std::exchange(number_, -1); }

 private:
  int number_;
};

// By way of the folder's descriptor: a socket's path has room for 107 bytes only.
sockaddr_un addressIn(const Descriptor& folder) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s", folder.get(),
                kControlName);
  return address;
}

// The bytes up to `last`, or to the end where there is none.
std::string readUpTo(int socket, char last, std::size_t most) {
  std::string text;
  std::array<char, 4096> piece;
  while (text.size() < most && text.find(last) == text.npos) {
    const ssize_t size = ::recv(socket, piece.data(), piece.size(), 0);
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) break;
    text.append(piece.data(), std::size_t(size));
  }
  return text;
}

void writeAll(int socket, std::string_view text) {
  while (!text.empty()) {
    const ssize_t size = ::send(socket, text.data(), text.size(), MSG_NOSIGNAL);
    if (size <= 0) return;
    text.remove_prefix(std::size_t(size));
  }
}

bool isTrusted(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  return ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
         (peer.uid == 0 || peer.uid == ::geteuid());
}

void setTimes(int socket, const timeval& time) {
  ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
  ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
}

Json::Value errorOf(const char* text) {
  Json::Value document;
  document["error"] = text;
  return document;
}

}  // namespace

void ControlSocket::open(const std::filesystem::path& folder) {
  const Descriptor directory(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (directory.get() < 0) fail(folder);
  Descriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = addressIn(directory);
  ::unlinkat(directory.get(), kControlName, 0);  // of a gateway that was killed
  if (::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::fchmodat(directory.get(), kControlName, S_IRUSR | S_IWUSR, 0) != 0 ||
      ::listen(listener.get(), kBacklog) != 0) {
    fail(folder);
  }
  Descriptor stop(::eventfd(0, EFD_CLOEXEC));
  if (stop.get() < 0) fail(folder);
  listener_ = listener.get();
  stop_ = stop.get();
  errno = startThread(thread_, "control", 0, [this] { serve(); });
  if (errno != 0) {
    listener_ = stop_ = -1;
    fail(folder);
  }
  static_cast<void>(listener.release());
  static_cast<void>(stop.release());
}

void ControlSocket::close() {
  if (listener_ < 0) return;
  ::eventfd_write(stop_, 1);
  pthread_join(thread_, nullptr);
  ::close(std::exchange(listener_, -1));
  ::close(std::exchange(stop_, -1));
}

void ControlSocket::serve() const {
  constexpr int kPauseMs = 100;  // where there are no descriptors
  for (;;) {
    std::array<pollfd, 2> ready{{{listener_, POLLIN, 0}, {stop_, POLLIN, 0}}};
    ::poll(ready.data(), ready.size(), -1);
    if (ready[1].revents != 0) return;
    try {
      serveOne();
    } catch (const std::exception& error) {  // no memory, no descriptors
      logError("control: {}", error.what());
      ::poll(&ready[1], 1, kPauseMs);
    }
  }
}

void ControlSocket::serveOne() const {
  const Descriptor client(::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC));
  if (client.get() < 0) throw std::system_error(errno, std::generic_category(), "accept");
  setTimes(client.get(), {kOrderTime.count(), 0});
  if (!isTrusted(client.get())) return;
  std::string order = readUpTo(client.get(), '\n', kOrderBytes);
  if (!order.ends_with('\n')) return;
  order.pop_back();
  writeAll(client.get(), done(order));
}

std::string ControlSocket::done(const std::string& order) const {
  constexpr std::string_view kUnlock = "unlock ";
  Json::Value document = errorOf("there is no such order");
  if (order == "reload") document = reload();
  if (order == "locks") document = locks();
  if (order.starts_with(kUnlock)) document = unlock(order.substr(kUnlock.size()));
  return Json::FastWriter().write(document);
}

Json::Value ControlSocket::reload() const {
  logInfo("control: a command asks for a reload");
  const std::optional<std::string> refusal = reloads_.ask();
  if (!refusal) return errorOf("no reload has ended in time");
  Json::Value document;
  document["taken"] = refusal->empty();
  if (!refusal->empty()) document["reason"] = *refusal;
  return document;
}

Json::Value ControlSocket::locks() const {
  Json::Value document = Json::arrayValue;
  for (const auto& [network, unlockIn] : login_.locks(kAnsweredLocks)) {
    Json::Value& lock = document.append(Json::objectValue);
    lock["address"] = network.text();
    lock["seconds"] = Json::Int64(unlockIn.count());
  }
  return document;
}

Json::Value ControlSocket::unlock(const std::string& shown) const {
  const std::string address = shown.substr(0, shown.find('/'));  // of the "/64" that is shown
  if (!kAddressRule.holds(address)) return errorOf("expected an IP address");
  Json::Value document;
  document["unlocked"] = login_.unlock(address);
  if (document["unlocked"].asBool()) {
    logInfo("control: {} is not locked any more, as a command asked", address);
  }
  return document;
}

std::string askGateway(const std::filesystem::path& folder, const std::string& order) {
  const Descriptor directory(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (directory.get() < 0) fail(folder);
  const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = addressIn(directory);
  setTimes(socket.get(), kAnswerTime);
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    fail(folder);
  }
  writeAll(socket.get(), order + '\n');
  std::string answer = readUpTo(socket.get(), '\n', kAnswerBytes);
  if (answer.ends_with('\n')) return answer;
  errno = EAGAIN;
  fail(folder);
}

}  // namespace qn
