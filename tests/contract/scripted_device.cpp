#include "tests/contract/scripted_device.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <stdexcept>

namespace qn::devicebus::test {

std::string DeviceRequest::field(const std::string& name) const {
  const std::size_t start = head.find("\r\n" + name + ": ");
  if (start == head.npos) return {};
  const std::size_t value = start + name.size() + 4;
  return head.substr(value, head.find("\r\n", value) - value);
}

Peer::~Peer() { ::close(socket_); }

bool Peer::readMore() {
  std::array<char, 65536> bytes;
  const ssize_t count = ::recv(socket_, bytes.data(), bytes.size(), 0);
  if (count <= 0) return false;
  unread_.append(bytes.data(), static_cast<std::size_t>(count));
  return true;
}

std::optional<DeviceRequest> Peer::read() {
  std::size_t end;
  while ((end = unread_.find("\r\n\r\n")) == unread_.npos) {
    if (!readMore()) return {};
  }
  DeviceRequest request;
  request.head = unread_.substr(0, end + 4);
  unread_.erase(0, end + 4);
  const std::size_t methodEnd = request.head.find(' ');
  request.method = request.head.substr(0, methodEnd);
  request.target =
      request.head.substr(methodEnd + 1, request.head.find(' ', methodEnd + 1) - methodEnd - 1);
  const std::size_t length = std::strtoul(request.field("Content-Length").c_str(), nullptr, 10);
  while (unread_.size() < length) {
    if (!readMore()) return {};
  }
  request.body = unread_.substr(0, length);
  unread_.erase(0, length);
  return request;
}

bool Peer::write(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

void Peer::waitForClose() {
  while (readMore()) unread_.clear();
}

void Peer::shutDown() { ::shutdown(socket_, SHUT_RDWR); }

ScriptedDevice::ScriptedDevice(Script script, uint16_t port) : script_(std::move(script)) {
  listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  const int yes = 1;
  ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  socklen_t length = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (::bind(listener_, generic, length) != 0 || ::listen(listener_, 512) != 0 ||
      ::getsockname(listener_, generic, &length) != 0) {
    throw std::runtime_error("no loopback port");
  }
  port_ = ntohs(address.sin_port);
  accepting_ = std::thread([this] { listen(); });
}

ScriptedDevice::~ScriptedDevice() {
  ::shutdown(listener_, SHUT_RDWR);
  accepting_.join();
  ::close(listener_);
  for (Peer& peer : peers_) peer.shutDown();
  for (std::thread& script : scripts_) script.join();
}

void ScriptedDevice::listen() {
  for (;;) {
    const int socket = ::accept(listener_, nullptr, nullptr);
    if (socket < 0) return;
    std::lock_guard lock(mutex_);
    Peer& peer = peers_.emplace_back(socket, connections_++);
    scripts_.emplace_back([this, &peer] {
      script_(peer);
      peer.shutDown();
    });
  }
}

ScriptedDevice::Script ScriptedDevice::answering(Answer answer) {
  return [answer = std::move(answer)](Peer& peer) {
    while (const auto request = peer.read()) {
      if (!peer.write(answer(*request))) return;
    }
  };
}

ScriptedDevice::Script ScriptedDevice::hanging() {
  return [](Peer& peer) { peer.waitForClose(); };
}

std::string jsonReply(std::string_view body, std::string_view statusAndReason) {
  std::string reply = "HTTP/1.1 ";
  reply += statusAndReason;
  reply += "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size());
  reply += "\r\n\r\n";
  reply += body;
  return reply;
}

}  // namespace qn::devicebus::test
