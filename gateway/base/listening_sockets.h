// The TCP sockets of this machine that listen. Used by CheckPortOccupy.
#pragma once

#include <array>
#include <vector>

namespace qn {

struct ListeningSocket {
  std::array<unsigned char, 16> address;  // an IPv4 address as an IPv4-mapped one
  unsigned int port;
  unsigned long inode;
};

// From the kernel's socket diagnostics, which look at listeners only: their cost does not grow with
// the connections that are open or were a minute ago, as that of the tables in /proc does. False
// when the kernel does not answer that; `sockets` is unspecified then. Waits at most a second.
bool askForListeningSockets(std::vector<ListeningSocket>& sockets);

}  // namespace qn
