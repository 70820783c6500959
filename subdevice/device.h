// One simulated sub-device: the documents it answers with, and everything that the control resource
// reads or changes. All of it lives on the one thread of the process.
#pragma once

#include <json/json.h>

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "subdevice/alarm_feed.h"
#include "subdevice/digest_guard.h"
#include "subdevice/documents.h"
#include "subdevice/face_library.h"
#include "subdevice/faults.h"
#include "subdevice/link.h"
#include "subdevice/message.h"
#include "subdevice/ptz.h"
#include "subdevice/recordings.h"
#include "subdevice/replay.h"

namespace subdevice {

struct DeviceOptions {
  int number = 1;
  std::string type = "IPCamera";  // the "deviceType" it reports; recorders have their own kind
  int channels = 2;
  std::string username;  // empty: no login
  std::string password;
  std::chrono::milliseconds alarmInterval{0};  // 0: alarms only on request
};

// The newest requests, for tests that ask what the device was really sent.
class RequestLog {
 public:
  static constexpr std::size_t kEntries = 64;
  static constexpr std::size_t kBodyBytes = 4096;  // of a body; the rest is cut

  void add(const Request& request);
  void clear() { entries_.clear(); }
  Json::Value document() const;  // the oldest first

 private:
  struct Entry {
    std::string method, url, contentType, body;
    std::size_t bodyBytes;
  };
  std::deque<Entry> entries_;
};

struct SimulatedDevice {
  SimulatedDevice(boost::asio::io_context& io, DeviceOptions deviceOptions);

  const DeviceOptions options;
  uint16_t port = 0;  // set when it listens
  bool listening = true;
  Link link;
  std::unique_ptr<Replay> replay;  // a device that plays a conversation; others have none
  // Set by the listener: acts on a change of `listening`, counts the open connections.
  std::function<void()> onSwitch;
  std::function<std::size_t()> connections;

  // Ends a reboot that is under way. Throws boost::system::system_error when the port is taken.
  void switchTo(bool on);
  // Off, and on again after that time, as soon as the port is free; what was switched or logged in
  // is forgotten.
  void reboot(std::chrono::milliseconds away);

  // Of a channel; made when it is first asked for. Null when there is no such channel.
  PtzHead* ptzHead(int channel);

  Documents documents;
  std::array<bool, kIoOutputs> outputsHigh{};  // the state of each IO output
  RecordingDatabase recordings;
  FaceLibrary faces;

  DigestGuard login;
  Faults faults;
  RequestLog log;
  AlarmFeed alarms;
  uint64_t requests = 0;  // the control resource's own apart

 private:
  void returnAfter(std::chrono::milliseconds away);

  boost::asio::io_context& io_;
  std::optional<boost::asio::steady_timer> rebooting_;
  std::map<int, PtzHead> ptzHeads_;  // by channel
};

}  // namespace subdevice
