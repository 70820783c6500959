// Which processes are the gateway's, and whether a port is taken by another. Called before a
// picture is uploaded; asks the kernel and reads /proc, so on a worker thread.
#include <arpa/inet.h>
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

#include "gateway/base/listening_sockets.h"
#include "platform/base_library.h"

namespace {

// Bounds on what is read of /proc.
constexpr int kMaxSockets = 65536;      // lines of each table
constexpr int kMaxDescriptors = 65536;  // of each process

// IPv4 addresses as IPv4-mapped ones.
using Address = std::array<unsigned char, 16>;
using Inodes = std::unordered_set<unsigned long>;

constexpr std::size_t kIPv4Offset = 12;
constexpr Address kMappedPrefix = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};

bool IsAnyAddress(const Address& address) {
  return address == Address{} || address == kMappedPrefix;
}

std::optional<Address> ParseAddress(const char* text) {
  Address address = kMappedPrefix;
  if (inet_pton(AF_INET, text, address.data() + kIPv4Offset) == 1) return address;
  if (inet_pton(AF_INET6, text, address.data()) == 1) return address;
  return std::nullopt;
}

using Listener = qn::ListeningSocket;

// The kernel writes an address as 32-bit words in the machine's byte order.
std::optional<Address> ParseTableAddress(const char* hex) {
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
std::optional<Listener> ParseLine(const std::string& line) {
  constexpr unsigned int kListening = 0x0A;
  char address[33];
  unsigned int port;
  unsigned int state;
  unsigned long inode;
  const int fields = std::sscanf(
      line.c_str(), " %*d: %32[0-9A-Fa-f]:%x %*[0-9A-Fa-f]:%*x %x %*x:%*x %*x:%*x %*x %*u %*d %lu",
      address, &port, &state, &inode);
  if (fields != 4 || state != kListening) return std::nullopt;
  const std::optional<Address> parsed = ParseTableAddress(address);
  if (!parsed) return std::nullopt;
  return Listener{*parsed, port, inode};
}

void AddListeners(const char* table, std::vector<Listener>& listeners) {
  std::ifstream lines(table);
  std::string line;
  for (int i = 0; i < kMaxSockets && std::getline(lines, line); ++i) {
    if (const std::optional<Listener> listener = ParseLine(line)) listeners.push_back(*listener);
  }
}

std::vector<Listener> AllListeners() {
  std::vector<Listener> listeners;
  if (qn::askForListeningSockets(listeners)) return listeners;
  listeners.clear();  // not every container lets that through
  AddListeners("/proc/net/tcp", listeners);
  AddListeners("/proc/net/tcp6", listeners);
  return listeners;
}

// Those that would meet a listener on the address and port.
Inodes MeetingListeners(const Address& address, unsigned int port) {
  Inodes inodes;
  for (const Listener& listener : AllListeners()) {
    const bool meets =
        listener.address == address || IsAnyAddress(listener.address) || IsAnyAddress(address);
    if (listener.port == port && meets) inodes.insert(listener.inode);
  }
  return inodes;
}

// Removes the sockets that the process holds. A process that is gone or not ours holds none.
void RemoveOwned(int pid, Inodes& inodes) {
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
  const std::optional<Address> parsed = address != nullptr ? ParseAddress(address) : std::nullopt;
  if (!parsed || port < 1 || port > 65535) return 0;
  Inodes inodes = MeetingListeners(*parsed, static_cast<unsigned int>(port));
  for (int pid : pids) {
    if (inodes.empty()) break;
    RemoveOwned(pid, inodes);
  }
  return inodes.empty() ? 0 : 1;
}
