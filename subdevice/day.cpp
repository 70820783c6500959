// See day.h.
#include "subdevice/day.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <stdexcept>

#include "subdevice/control.h"
#include "subdevice/device.h"
#include "subdevice/orders.h"
#include "text/ascii.h"
#include "text/number.h"

namespace subdevice {
namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr seconds kDay{24 * 60 * 60};
constexpr int kFindings = 20;

std::string_view takeUntil(std::string_view& text, char mark) {
  const std::string_view first = text.substr(0, text.find(mark));
  text.remove_prefix(std::min(text.size(), first.size() + 1));
  return first;
}

std::string_view takeWord(std::string_view& text) {
  text = qn::text::trim(text, qn::text::kBlanks);
  const std::string_view word = text.substr(0, text.find_first_of(qn::text::kBlanks));
  text.remove_prefix(word.size());
  return word;
}

// "HH:MM" or "HH:MM:SS".
seconds timeOf(std::string_view word) {
  std::string_view rest = word;
  std::array<int, 3> parts{};
  std::size_t count = 0;
  for (; !rest.empty() && count < parts.size(); ++count) {
    const std::string_view digits = takeUntil(rest, ':');
    const int limit = count == 0 ? 24 : 60;
    parts[count] = digits.size() == 2 ? qn::text::wholeNumber<int>(digits).value_or(limit) : limit;
    if (parts[count] < 0 || parts[count] >= limit) count = parts.size();
  }
  if (count < 2 || count > parts.size() || !rest.empty() || word.ends_with(':'))
    throw std::runtime_error("\"" + std::string(word) + "\" is no time of day such as 08:30");
  return seconds(parts[0] * 3600 + parts[1] * 60 + parts[2]);
}

// "all", "7", "1-100,7".
std::vector<std::pair<int, int>> devicesOf(std::string_view word, int devices) {
  if (word == "all") return {{1, devices}};
  std::vector<std::pair<int, int>> ranges;
  for (std::string_view rest = word; !rest.empty();) {
    std::string_view last = takeUntil(rest, ',');
    const std::string_view first = takeUntil(last, '-');
    const int from = qn::text::wholeNumber<int>(first).value_or(0);
    const int to = last.empty() ? from : qn::text::wholeNumber<int>(last).value_or(0);
    if (from < 1 || to < from || to > devices)
      throw std::runtime_error("\"" + std::string(word) + "\" names no devices from 1 to " +
                               std::to_string(devices) + "; write all, 7 or 1-100,7");
    ranges.emplace_back(from, to);
  }
  if (ranges.empty()) throw std::runtime_error("no devices and no order after the time");
  return ranges;
}

DayEvent eventOf(std::string_view line, int devices) {
  DayEvent event;
  event.at = timeOf(takeWord(line));
  event.devices = devicesOf(takeWord(line), devices);
  event.orders = ordersOf(line);
  return event;
}

}  // namespace

std::vector<DayEvent> readDay(std::istream& file, const std::string& name, int devices) {
  std::vector<DayEvent> events;
  std::string findings;
  int wrong = 0;
  std::string line;
  for (int number = 1; wrong < kFindings && std::getline(file, line); ++number) {
    const std::string_view text = qn::text::trim(line, qn::text::kBlanks);
    if (text.empty() || text.starts_with('#')) continue;
    try {
      if (line.size() > Day::kLineBytes) throw std::runtime_error("the line is too long");
      if (events.size() == Day::kEvents) throw std::runtime_error("too many lines");
      events.push_back(eventOf(text, devices));
    } catch (const std::runtime_error& error) {
      findings += "\n" + name + ":" + std::to_string(number) + ": " + error.what();
      ++wrong;
    }
  }
  if (events.empty() && wrong == 0) findings = "\n" + name + ": nothing happens on this day";
  if (!findings.empty()) throw std::runtime_error("the day cannot be played" + findings);
  std::ranges::stable_sort(events, {}, &DayEvent::at);
  return events;
}

Day::Day(boost::asio::io_context& io, const Devices& devices, std::vector<DayEvent> events,
         double speed)
    : devices_(devices), events_(std::move(events)), speed_(speed), timer_(io) {
  for (auto& event : events_)
    if (event.orders.isMember("reboot")) {
      Json::Value& reboot = event.orders["reboot"]["seconds"];
      reboot = (reboot.isNull() ? kRebootSeconds : reboot.asDouble()) / speed_;
    }
}

void Day::start() {
  midnight_ = steady_clock::now();
  scheduleNext();
}

void Day::scheduleNext() {
  if (next_ == events_.size()) {
    next_ = 0;
    midnight_ += std::chrono::duration_cast<steady_clock::duration>(kDay / speed_);
  }
  const auto offset = std::chrono::duration<double>(events_[next_].at) / speed_;
  timer_.expires_at(midnight_ + std::chrono::duration_cast<steady_clock::duration>(offset));
  timer_.async_wait([this](boost::system::error_code error) {
    if (error) return;
    play(events_[next_++]);
    scheduleNext();
  });
}

void Day::play(const DayEvent& event) {
  for (const auto& [first, last] : event.devices)
    for (int number = first; number <= last; ++number) {
      const auto wrong = obey(*devices_[static_cast<std::size_t>(number - 1)], event.orders);
      if (!wrong.empty()) std::fprintf(stderr, "device %d: %s\n", number, wrong.c_str());
    }
}

}  // namespace subdevice
