// A scripted day of the devices of a process, from a file: each line a time of day, whom it is for,
// and an order in the words of a command (orders.h).
//
//   # the night ends
//   07:58       all      alarm devStatusChanged --alert '{"devStatusChanged": {"status": "on"}}'
//   08:00       1-100,7  alarm motion --count 500 --per-second 20
//   08:30:15    3        reboot --seconds 90
//   09:00       1-50     link --bytes-per-second 20000 --delay-ms 300
#pragma once

#include <json/json.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <istream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace subdevice {

struct SimulatedDevice;

struct DayEvent {
  std::chrono::seconds at;                   // since midnight
  std::vector<std::pair<int, int>> devices;  // first and last of each range
  Json::Value orders;
};

// In the order of their times. Throws std::runtime_error that says for each wrong line (the first
// twenty) what is wrong with it. Devices are numbered from 1 to `devices`.
std::vector<DayEvent> readDay(std::istream& file, const std::string& name, int devices);

// Plays the events again each day, from midnight on; times of day and the time that a reboot takes
// pass `speed` times as fast as they stand there. What devices refuse is told on standard error.
class Day {
 public:
  using Devices = std::vector<std::unique_ptr<SimulatedDevice>>;
  static constexpr std::size_t kEvents = 10'000;
  static constexpr std::size_t kLineBytes = 4096;

  // The devices outlive the day.
  Day(boost::asio::io_context& io, const Devices& devices, std::vector<DayEvent> events,
      double speed);

  void start();

 private:
  void scheduleNext();
  void play(const DayEvent& event);

  const Devices& devices_;
  std::vector<DayEvent> events_;
  const double speed_;
  boost::asio::steady_timer timer_;
  std::chrono::steady_clock::time_point midnight_;
  std::size_t next_ = 0;
};

}  // namespace subdevice
