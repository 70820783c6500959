// Stands between a gateway and a device: passes on what they say and keeps it without what is
// secret (anonymiser.h). The gateway's login goes through to the device and the device's challenge
// back, so no password is needed here; what belongs to the login alone is not kept.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "subdevice/conversation.h"

namespace subdevice {

// One thread. The context runs nothing any more when it goes.
class Recorder {
 public:
  // What is kept; the rest is passed on all the same.
  static constexpr std::size_t kBytes = 32 * 1024 * 1024;
  static constexpr std::size_t kExchanges = 20'000;
  static constexpr std::size_t kStreamBytes = 4 * 1024 * 1024;  // of each stream
  static constexpr std::chrono::minutes kStreamTime{60};        // of each stream
  static constexpr std::size_t kConnections = 256;
  static constexpr std::size_t kReplyBytes = 64 * 1024 * 1024;
  static constexpr std::chrono::seconds kDeviceTime{60};  // for a reply
  static constexpr std::chrono::seconds kSavePeriod{10};

  // Listens on loopback. The URL is "http://HOST[:PORT]". Throws std::runtime_error.
  Recorder(boost::asio::io_context& io, uint16_t port, const std::string& url, std::string file);

  uint16_t port() const { return acceptor_.local_endpoint().port(); }
  // Writes the file anew when something has come; it appears whole. Throws std::runtime_error.
  void save();

  // For the connections.
  boost::asio::io_context& io() { return io_; }
  const boost::asio::ip::tcp::endpoint& device() const { return device_; }
  void sawUser(const std::string& name) { users_.insert(name); }
  // The place of a new exchange; false when no more is kept.
  bool keep(RecordedExchange exchange, std::size_t& place);
  void addPart(std::size_t place, RecordedPart part);
  void endStream(std::size_t place, std::chrono::milliseconds at);
  const std::shared_ptr<std::size_t>& connections() const { return connections_; }

 private:
  void accept();
  void saveLater();
  bool hasRoom(std::size_t bytes);

  boost::asio::io_context& io_;
  boost::asio::ip::tcp::acceptor acceptor_;
  boost::asio::ip::tcp::endpoint device_;
  const std::string file_;
  boost::asio::steady_timer saving_;
  Conversation conversation_;
  std::set<std::string> users_;
  std::size_t bytes_ = 0;
  const std::shared_ptr<std::size_t> connections_ = std::make_shared<std::size_t>(0);
  bool changed_ = true;
  bool full_ = false;
};

}  // namespace subdevice
