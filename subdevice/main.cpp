// qn-subdevice: simulated sub-devices on consecutive ports of the loopback interface.
#include <CLI/CLI.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "subdevice/server.h"

namespace {

using subdevice::DeviceListener;
using subdevice::DeviceOptions;
using subdevice::SimulatedDevice;

constexpr int kMostDevices = 2000;

struct CommandLine {
  uint16_t port = 9001;
  int devices = 2;
  std::vector<std::string> types{"IPCamera"};  // the last one holds for the devices after it
  double alarmSeconds = 5;
  DeviceOptions each;
};

void declare(CLI::App& app, CommandLine& line) {
  app.add_option("--port", line.port, "port of the first device; 0: free ports")
      ->capture_default_str();
  app.add_option("--devices", line.devices, "number of devices")
      ->capture_default_str()
      ->check(CLI::Range(1, kMostDevices));
  app.add_option("--type", line.types, "device types, one for each device; the last for the rest")
      ->capture_default_str();
  app.add_option("--channels", line.each.channels, "video channels of each device")
      ->capture_default_str()
      ->check(CLI::Range(1, 256));
  app.add_option("--username", line.each.username, "ask for a login with this name");
  app.add_option("--password", line.each.password, "password of the login");
  app.add_option("--alarm-interval", line.alarmSeconds, "seconds between alarms; 0: on request")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 86400.0));
}

uint16_t portOf(const CommandLine& line, std::size_t index) {
  return line.port == 0 ? 0 : static_cast<uint16_t>(line.port + index);
}

void run(const CommandLine& line) {
  boost::asio::io_context io(1);
  DeviceListener::Devices devices;
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
    devices.back()->alarms.start();
    std::printf("device %d http://127.0.0.1:%d\n", number, devices.back()->port);
  }
  std::fflush(stdout);
  boost::asio::signal_set signals(io, SIGINT, SIGTERM);
  signals.async_wait([&io](auto, int) { io.stop(); });
  io.run();
}

}  // namespace

int main(int argc, char** argv) {
  CommandLine line;
  CLI::App app("Simulated sub-devices");
  declare(app, line);
  CLI11_PARSE(app, argc, argv);
  try {
    run(line);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "qn-subdevice: %s\n", error.what());
    return 1;
  }
  return 0;
}
