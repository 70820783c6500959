// A sub-device for tests: a script speaks for it on each connection, on loopback.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <thread>

#include "tests/contract/socket.h"

namespace qn::devicebus::test {

struct DeviceRequest {
  std::string method;
  std::string target;
  std::string head;  // all of it
  std::string body;

  // Empty when absent; the name as the bus writes it.
  std::string field(const std::string& name) const;
};

// The device's end of one connection. Everything blocks until the bus or the test ends it.
class Peer {
 public:
  Peer(int socket, int number) : socket_(socket), number_(number) {}
  // 0 for the first connection.
  int number() const { return number_; }
  // None when the bus has closed.
  std::optional<DeviceRequest> read();
  bool write(std::string_view bytes) { return socket_.send(bytes); }
  // Reads and forgets until the bus closes.
  void waitForClose();
  void shutDown() { socket_.shutDown(); }

 private:
  Socket socket_;
  const int number_;
  std::string unread_;
};

class ScriptedDevice {
 public:
  using Script = std::function<void(Peer&)>;
  using Answer = std::function<std::string(const DeviceRequest&)>;

  // The connection is closed when the script returns.
  // Port 0: a free one.
  explicit ScriptedDevice(Script script, uint16_t port = 0);
  ~ScriptedDevice();  // ends all connections and waits for the scripts

  // Keeps connections alive and answers each request.
  static Script answering(Answer answer);
  // Takes requests and answers none.
  static Script hanging();

  uint16_t port() const { return port_; }
  int connections() const { return connections_; }

 private:
  void accept();

  const Script script_;
  Socket listener_;
  const uint16_t port_;
  std::atomic<int> connections_{0};
  std::mutex mutex_;
  std::list<Peer> peers_;           // guarded by mutex_
  std::list<std::thread> scripts_;  // guarded by mutex_
  std::thread accepting_;
};

// A whole JSON reply with its length.
std::string jsonReply(std::string_view body, std::string_view statusAndReason = "200 OK");

}  // namespace qn::devicebus::test
