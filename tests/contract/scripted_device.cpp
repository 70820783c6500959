#include "tests/contract/scripted_device.h"

#include <cstdlib>

namespace qn::devicebus::test {

std::string DeviceRequest::field(const std::string& name) const {
  const std::size_t start = head.find("\r\n" + name + ": ");
  if (start == head.npos) return {};
  const std::size_t value = start + name.size() + 4;
  return head.substr(value, head.find("\r\n", value) - value);
}

std::optional<DeviceRequest> Peer::read() {
  std::size_t end;
  while ((end = unread_.find("\r\n\r\n")) == unread_.npos) {
    if (!socket_.receive(unread_)) return {};
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
    if (!socket_.receive(unread_)) return {};
  }
  request.body = unread_.substr(0, length);
  unread_.erase(0, length);
  return request;
}

void Peer::waitForClose() {
  while (socket_.receive(unread_)) unread_.clear();
}

ScriptedDevice::ScriptedDevice(Script script, uint16_t port)
    : script_(std::move(script)), port_(listener_.listen(port)), accepting_([this] { accept(); }) {}

ScriptedDevice::~ScriptedDevice() {
  listener_.shutDown();
  accepting_.join();
  listener_.close();
  for (Peer& peer : peers_) peer.shutDown();
  for (std::thread& script : scripts_) script.join();
}

void ScriptedDevice::accept() {
  for (;;) {
    const int socket = ::accept(listener_.descriptor(), nullptr, nullptr);
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
