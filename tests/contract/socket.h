// Blocking TCP sockets on the loopback interface, for both ends of a test's conversations.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <string_view>

namespace qn {

class Socket {
 public:
  explicit Socket(int descriptor = ::socket(AF_INET, SOCK_STREAM, 0)) : descriptor_(descriptor) {}
  ~Socket() { close(); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  bool connect(uint16_t port) {
    const sockaddr_in to = address(port);
    return ::connect(descriptor_, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0;
  }
  // Listens on a port, 0 for a free one, and returns it.
  uint16_t listen(uint16_t port) {
    sockaddr_in at = address(port);
    socklen_t length = sizeof at;
    const int yes = 1;
    ::setsockopt(descriptor_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    auto* const name = reinterpret_cast<sockaddr*>(&at);
    if (::bind(descriptor_, name, length) != 0 || ::listen(descriptor_, 512) != 0 ||
        ::getsockname(descriptor_, name, &length) != 0) {
      throw std::runtime_error("no loopback port");
    }
    return ntohs(at.sin_port);
  }
  bool send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t count = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (count <= 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
  }
  // Appends what comes next; false at the end, on an error and after the socket's time-out.
  bool receive(std::string& input) {
    char bytes[65536];
    const ssize_t count = ::recv(descriptor_, bytes, sizeof bytes, 0);
    if (count > 0) input.append(bytes, static_cast<std::size_t>(count));
    ended_ = count == 0 || (count < 0 && errno == ECONNRESET);
    return count > 0;
  }
  // The last receive() failed since the other end has closed.
  bool ended() const { return ended_; }
  void shutDown(int how = SHUT_RDWR) { ::shutdown(descriptor_, how); }
  void close() {
    if (descriptor_ >= 0) ::close(descriptor_);
    descriptor_ = -1;
  }
  int descriptor() const { return descriptor_; }

 private:
  static sockaddr_in address(uint16_t port) {
    sockaddr_in loopback{};
    loopback.sin_family = AF_INET;
    loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    loopback.sin_port = htons(port);
    return loopback;
  }

  int descriptor_;
  bool ended_ = false;
};

}  // namespace qn
