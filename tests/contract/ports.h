// TCP ports of the loopback interface that no other test has.
#pragma once

#include <sys/un.h>

#include <cstddef>
#include <random>
#include <utility>

#include "tests/contract/socket.h"

namespace qn {

// A range of ports for this process alone, while it lives: whoever has a range has bound its name.
// All are below those that the system gives to connections. tests/e2e/harness.py shares them out
// in the same way.
class PortRange {
 public:
  PortRange() {
    for (int i = 0; i < kRanges; ++i) {
      first_ = kFirst + (getpid() + i) % kRanges * kPorts;
      sockaddr_un name{AF_UNIX, ""};
      const std::string text = "qn-test-ports-" + std::to_string(first_);
      text.copy(name.sun_path + 1, sizeof name.sun_path - 1);  // behind a zero: of no file
      const auto length = socklen_t(offsetof(sockaddr_un, sun_path) + 1 + text.size());
      if (::bind(name_.descriptor(), reinterpret_cast<const sockaddr*>(&name), length) == 0) return;
    }
    throw std::runtime_error("other tests have all ports");
  }

  // The first of so many beside each other, which nobody listens on.
  uint16_t free(int count) {
    for (int turn = 0; turn < kPorts; ++turn) {
      if (next_ + count > kPorts) next_ = 0;
      const int port = first_ + std::exchange(next_, next_ + count);
      bool isFree = true;
      for (int i = 0; i < count; ++i) isFree = isFree && canListen(uint16_t(port + i));
      if (isFree) return uint16_t(port);
    }
    throw std::runtime_error("no free port");
  }

 private:
  static constexpr int kFirst = 10240, kPorts = 352, kRanges = 64;

  static bool canListen(uint16_t port) try {
    return Socket().listen(port) == port;
  } catch (const std::runtime_error&) {
    return false;
  }

  const Socket name_{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  int first_ = 0;
  int next_ = int(std::random_device{}() % kPorts);
};

inline uint16_t freePort(int count = 1) {
  static PortRange range;
  return range.free(count);
}

}  // namespace qn
