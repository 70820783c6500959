// qn-subdevice: simulated sub-devices on consecutive ports of the loopback interface, and orders to
// such a process that runs.
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address_v4.hpp>
#include <boost/asio/signal_set.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "subdevice/day.h"
#include "subdevice/http_call.h"
#include "subdevice/json_text.h"
#include "subdevice/orders.h"
#include "subdevice/recorder/recorder.h"
#include "subdevice/server.h"

namespace {

using subdevice::DeviceListener;
using subdevice::DeviceOptions;
using subdevice::SimulatedDevice;

constexpr int kMostDevices = 10'000;
constexpr int kLastPort = 65535;

constexpr const char* kFooter =
    R"(Orders to a simulator that runs (with --port, when its first port is not 9001):
  qn-subdevice alarm motion --device 1 --count 100 --per-second 20
  qn-subdevice fault hang --device 2 --count 3
  qn-subdevice fault none --device 2
  qn-subdevice state --device 1
)";

struct CommandLine {
  uint16_t port = 9001;
  int devices = 2;
  std::vector<std::string> types{"IPCamera"};  // the last one holds for the devices after it
  double alarmSeconds = 5;
  DeviceOptions each;
  std::string day;
  double daySpeed = 1;
  std::string replay;
  std::string record;  // URL of a device
  std::string recordTo;
};

// For a simulator that runs.
struct Command {
  int device = 1;
  std::optional<Json::Value> orders;  // nothing: it is asked for its state
};

std::vector<CLI::Option*> declare(CLI::App& app, CommandLine& line) {
  std::vector<CLI::Option*> options;
  const auto option = [&](const char* name, auto& value, const char* help) {
    options.push_back(app.add_option(name, value, help));
    return options.back();
  };
  option("--devices", line.devices, "number of devices")
      ->capture_default_str()
      ->check(CLI::Range(1, kMostDevices));
  option("--type", line.types, "device types, one for each device; the last for the rest")
      ->capture_default_str()
      ->check(CLI::IsMember({"IPCamera", "NVR", "DVR", "DVS", "HybirdNVR"}));
  option("--channels", line.each.channels, "video channels of each device")
      ->capture_default_str()
      ->check(CLI::Range(1, 256));
  option("--username", line.each.username, "ask for a login with this name");
  option("--password", line.each.password, "password of the login");
  option("--alarm-interval", line.alarmSeconds, "seconds between alarms; 0: on request")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 86400.0));
  option("--day", line.day, "file of orders for times of day, played from midnight on")
      ->check(CLI::ExistingFile);
  option("--day-speed", line.daySpeed, "how much faster the day passes; 1440: in a minute")
      ->capture_default_str()
      ->check(CLI::Range(1.0, 86400.0));
  option("--replay", line.replay, "file of a recorded conversation, which every device plays")
      ->check(CLI::ExistingFile);
  auto* const record =
      app.add_option("--record", line.record,
                     "URL of a device: stand before it on --port and keep what is said, "
                     "anonymised");
  auto* const to = app.add_option("--to", line.recordTo, "file of what is recorded")->needs(record);
  record->needs(to);
  for (auto* other : options) record->excludes(other);
  options.insert(options.end(), {record, to});
  return options;
}

// The commands go without the options of the simulator itself, but for the port.
void declareCommands(CLI::App& app, uint16_t& port, std::optional<Command>& command,
                     const std::vector<CLI::Option*>& simulatorsOwn) {
  const auto device = std::make_shared<int>(1);
  const auto declared = [&, device](CLI::App& one) {
    one.add_option("--device", *device, "number of the device")->capture_default_str();
    one.add_option("--port", port, "port of its first device")->capture_default_str();
    for (auto* option : simulatorsOwn) one.excludes(option);
  };
  subdevice::declareOrders(
      app,
      [&command, device](const Json::Value& orders) {
        command = {*device, orders};
      },
      declared);
  CLI::App* const state = app.add_subcommand("state", "prints counters and the newest requests");
  declared(*state);
  state->callback([&command, device] { command = {*device, {}}; });
  app.require_subcommand(0, 1);
}

uint16_t portOf(const CommandLine& line, std::size_t index) {
  return line.port == 0 ? 0 : static_cast<uint16_t>(line.port + index);
}

// Each device is a socket, and each of its clients one more.
void allowManyDescriptors() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

std::ifstream opened(const std::string& name) {
  std::ifstream file(name);
  if (!file) throw std::runtime_error(name + ": " + std::strerror(errno));
  return file;
}

std::vector<subdevice::DayEvent> dayOf(const CommandLine& line) {
  auto file = opened(line.day);
  return subdevice::readDay(file, line.day, line.devices);
}

subdevice::Conversation conversationOf(const CommandLine& line) {
  if (line.replay.empty()) return {};
  auto file = opened(line.replay);
  return subdevice::readConversation(file, line.replay);
}

void run(const CommandLine& line) {
  if (line.port != 0 && line.port + line.devices - 1 > kLastPort)
    throw std::runtime_error("there are not so many ports from " + std::to_string(line.port) +
                             " on");
  allowManyDescriptors();
  const subdevice::Conversation conversation = conversationOf(line);
  boost::asio::io_context io(1);
  DeviceListener::Devices devices;
  std::optional<subdevice::Day> day;
  if (!line.day.empty()) day.emplace(io, devices, dayOf(line), line.daySpeed);
  std::vector<std::unique_ptr<DeviceListener>> listeners;
  for (int number = 1; number <= line.devices; ++number) {
    const auto index = static_cast<std::size_t>(number - 1);
    DeviceOptions options = line.each;
    options.number = number;
    options.type = line.types[std::min(index, line.types.size() - 1)];
    options.alarmInterval = std::chrono::milliseconds(static_cast<long>(line.alarmSeconds * 1000));
    devices.push_back(std::make_unique<SimulatedDevice>(io, options));
    listeners.push_back(
        std::make_unique<DeviceListener>(io, devices, *devices.back(), portOf(line, index)));
    if (!conversation.empty())
      devices.back()->replay = std::make_unique<subdevice::Replay>(conversation);
    else
      devices.back()->alarms.start();
    std::printf("device %d http://127.0.0.1:%d\n", number, devices.back()->port);
  }
  std::fflush(stdout);
  if (day) day->start();
  boost::asio::signal_set signals(io, SIGINT, SIGTERM);
  signals.async_wait([&io](auto, int) { io.stop(); });
  io.run();
}

void record(const CommandLine& line) {
  boost::asio::io_context io(1);
  subdevice::Recorder recorder(io, line.port, line.record, line.recordTo);
  std::printf("recorder http://127.0.0.1:%d\n", recorder.port());
  std::fflush(stdout);
  boost::asio::signal_set signals(io, SIGINT, SIGTERM);
  signals.async_wait([&io](auto, int) { io.stop(); });
  io.run();
  recorder.save();
}

// Prints what the simulator has to say, but for a plain "done".
void tell(const Command& command, uint16_t port) {
  boost::asio::io_context io(1);
  const std::string target = "/control?device=" + std::to_string(command.device);
  const auto loopback = boost::asio::ip::address_v4::loopback();
  subdevice::HttpCall what{{loopback, port}, "GET", target, "127.0.0.1", ""};
  if (command.orders) {
    what.method = "POST";
    what.body = subdevice::writeJson(*command.orders);
  }
  subdevice::HttpCallAnswer answer;
  subdevice::call(io, what, [&](subdevice::HttpCallAnswer came) { answer = std::move(came); });
  io.run();
  if (answer.error)
    throw std::runtime_error("no simulator answers on port " + std::to_string(port) + ": " +
                             answer.error.message());
  if (answer.status == 404)
    throw std::runtime_error("there is no device " + std::to_string(command.device));
  if (answer.status != 200) throw std::runtime_error(answer.body);
  if (!command.orders) std::puts(answer.body.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  CommandLine line;
  std::optional<Command> command;
  CLI::App app("Simulated sub-devices");
  app.add_option("--port", line.port, "port of the first device; 0: free ports")
      ->capture_default_str();
  declareCommands(app, line.port, command, declare(app, line));
  app.footer(kFooter);
  CLI11_PARSE(app, argc, argv);
  try {
    if (command)
      tell(*command, line.port);
    else
      line.record.empty() ? run(line) : record(line);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "qn-subdevice: %s\n", error.what());
    return 1;
  }
  return 0;
}
