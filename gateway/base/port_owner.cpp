// Which processes are the gateway's, and whether a port is taken by another. Called before a
// picture is uploaded; asks the kernel and reads /proc, so on a worker thread.
#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <unordered_set>
#include <vector>

#include "platform/base_library.h"

namespace {

// Bounds on what is read of /proc.
constexpr int kMaxSockets = 65536;      // lines of each table
constexpr int kMaxDescriptors = 65536;  // of each process

// IPv4 addresses as IPv4-mapped ones.
using Address = std::array<unsigned char, 16>;
struct ListeningSocket {
  Address address;
  unsigned int port;
  unsigned long inode;
};

using Inodes = std::unordered_set<unsigned long>;

constexpr std::size_t kIPv4Offset = 12;
constexpr Address kMappedPrefix = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};

bool isAnyAddress(const Address& address) {
  return address == Address{} || address == kMappedPrefix;
}

std::optional<Address> parseAddress(const char* text) {
  Address address = kMappedPrefix;
  if (inet_pton(AF_INET, text, address.data() + kIPv4Offset) == 1) return address;
  if (inet_pton(AF_INET6, text, address.data()) == 1) return address;
  return std::nullopt;
}

// The kernel writes an address as 32-bit words in the machine's byte order.
std::optional<Address> parseTableAddress(const char* hex) {
  const std::size_t words = std::strlen(hex) / 8;
  if (words != 1 && words != 4) return std::nullopt;
  Address address = kMappedPrefix;
  unsigned char* to = address.data() + (words == 1 ? kIPv4Offset : 0);
  for (std::size_t i = 0; i < words; ++i) {
    unsigned int word;
    if (std::sscanf(hex + 8 * i, "%8x", &word) != 1) return std::nullopt;
    std::memcpy(to + sizeof(word) * i, &word, sizeof(word));
  }
  return address;
}

// A line of /proc/net/tcp or tcp6; nothing for the heading and for sockets that do not listen.
std::optional<ListeningSocket> parseLine(const std::string& line) {
  constexpr unsigned int kListening = 0x0A;
  char address[33];
  unsigned int port;
  unsigned int state;
  unsigned long inode;
  const int fields = std::sscanf(
      line.c_str(), " %*d: %32[0-9A-Fa-f]:%x %*[0-9A-Fa-f]:%*x %x %*x:%*x %*x:%*x %*x %*u %*d %lu",
      address, &port, &state, &inode);
  if (fields != 4 || state != kListening) return std::nullopt;
  const std::optional<Address> parsed = parseTableAddress(address);
  if (!parsed) return std::nullopt;
  return ListeningSocket{*parsed, port, inode};
}

void addListeners(const char* table, std::vector<ListeningSocket>& listeners) {
  std::ifstream lines(table);
  std::string line;
  for (int i = 0; i < kMaxSockets && std::getline(lines, line); ++i) {
    if (const std::optional<ListeningSocket> listener = parseLine(line))
      listeners.push_back(*listener);
  }
}

struct Question {
  nlmsghdr header;
  inet_diag_req_v2 body;
};

class Netlink {
 public:
  Netlink() : descriptor_(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {
    const timeval limit{1, 0};
    ::setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  }
  ~Netlink() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  Netlink(const Netlink&) = delete;
  Netlink& operator=(const Netlink&) = delete;

  bool askForListeners(unsigned char family) {
    Question question{};
    question.header.nlmsg_len = sizeof question;
    question.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    question.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    question.body.sdiag_family = family;
    question.body.sdiag_protocol = IPPROTO_TCP;
    question.body.idiag_states = 1U << TCP_LISTEN;
    return ::send(descriptor_, &question, sizeof question, 0) == ssize_t{sizeof question};
  }

  // One datagram of the answer; -1 when none comes.
  int receive(char* buffer, std::size_t size) {
    return static_cast<int>(::recv(descriptor_, buffer, size, 0));
  }

 private:
  const int descriptor_;
};

ListeningSocket socketOf(const inet_diag_msg& message) {
  ListeningSocket socket{{}, ntohs(message.id.idiag_sport), message.idiag_inode};
  if (message.idiag_family == AF_INET6) {
    std::memcpy(socket.address.data(), message.id.idiag_src, 16);
  } else {
    socket.address[10] = socket.address[11] = 0xFF;
    std::memcpy(socket.address.data() + 12, message.id.idiag_src, 4);
  }
  return socket;
}

enum class Progress { More, Done, Failed };

Progress readMessage(const nlmsghdr& header, std::vector<ListeningSocket>& sockets) {
  if (header.nlmsg_type == NLMSG_DONE) return Progress::Done;
  const bool fits = header.nlmsg_len >= NLMSG_LENGTH(sizeof(inet_diag_msg));
  if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY || !fits ||
      sockets.size() == std::size_t{kMaxSockets}) {
    return Progress::Failed;
  }
  inet_diag_msg message;
  std::memcpy(&message, reinterpret_cast<const char*>(&header) + NLMSG_HDRLEN, sizeof message);
  sockets.push_back(socketOf(message));
  return Progress::More;
}

bool readAnswer(Netlink& netlink, std::vector<ListeningSocket>& sockets) {
  alignas(nlmsghdr) char buffer[16 * 1024];
  for (;;) {
    int length = netlink.receive(buffer, sizeof buffer);
    if (length <= 0) return false;
    for (const auto* header = reinterpret_cast<const nlmsghdr*>(buffer);
         NLMSG_OK(header, static_cast<unsigned>(length)); header = NLMSG_NEXT(header, length)) {
      const Progress progress = readMessage(*header, sockets);
      if (progress != Progress::More) return progress == Progress::Done;
    }
  }
}

// From the kernel's socket diagnostics, which look at listeners only: their cost does not grow with
// the connections that are open or were a minute ago, as that of the tables in /proc does. False
// when the kernel does not answer that; `sockets` is unspecified then. Waits at most a second.
bool askForListeningSockets(std::vector<ListeningSocket>& sockets) {
  Netlink netlink;
  for (const unsigned char family : {AF_INET, AF_INET6}) {
    if (!netlink.askForListeners(family) || !readAnswer(netlink, sockets)) return false;
  }
  return true;
}

std::vector<ListeningSocket> allListeners() {
  std::vector<ListeningSocket> listeners;
  if (askForListeningSockets(listeners)) return listeners;
  listeners.clear();  // not every container lets that through
  addListeners("/proc/net/tcp", listeners);
  addListeners("/proc/net/tcp6", listeners);
  return listeners;
}

// Those that would meet a listener on the address and port.
Inodes meetingListeners(const Address& address, unsigned int port) {
  Inodes inodes;
  for (const ListeningSocket& listener : allListeners()) {
    const bool meets =
        listener.address == address || isAnyAddress(listener.address) || isAnyAddress(address);
    if (listener.port == port && meets) inodes.insert(listener.inode);
  }
  return inodes;
}

// Removes the sockets that the process holds. A process that is gone or not ours holds none.
void removeOwned(int pid, Inodes& inodes) {
  const std::string folder = "/proc/" + std::to_string(pid) + "/fd";
  std::error_code error;
  std::filesystem::directory_iterator entry(folder, error);
  for (int i = 0; i < kMaxDescriptors && !error && entry != std::filesystem::directory_iterator();
       ++i, entry.increment(error)) {
    std::error_code vanished;
    const auto target = std::filesystem::read_symlink(entry->path(), vanished).string();
    unsigned long inode;
    if (std::sscanf(target.c_str(), "socket:[%lu]", &inode) == 1) inodes.erase(inode);
  }
}

}  // namespace

int DriverCif_GetProcessPid(std::vector<int>& pids) {
  pids.assign(1, getpid());
  return 0;
}

int CheckPortOccupy(const std::vector<int>& pids, const char* address, int port,
                    [[maybe_unused]] int tcp) {
  const std::optional<Address> parsed = address != nullptr ? parseAddress(address) : std::nullopt;
  if (!parsed || port < 1 || port > 65535) return 0;
  Inodes inodes = meetingListeners(*parsed, static_cast<unsigned int>(port));
  for (int pid : pids) {
    if (inodes.empty()) break;
    removeOwned(pid, inodes);
  }
  return inodes.empty() ? 0 : 1;
}
