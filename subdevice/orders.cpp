// See orders.h.
#include "subdevice/orders.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <span>
#include <stdexcept>

#include "subdevice/alarm_feed.h"
#include "subdevice/faults.h"
#include "subdevice/json_text.h"
#include "text/ascii.h"
#include "text/number.h"

namespace subdevice {
namespace {

enum class Kind { Number, Flag, Text, Word, Object };

struct Member {
  const char* name;
  Kind kind;
  const char* help;
  double least = 0, most = 0;                          // of a number
  std::vector<std::string_view> (*words)() = nullptr;  // that a word may be
};

struct Order {
  const char* name;
  const char* command;
  const char* help;
  std::span<const Member> members{};
  // Without members: true, or what one of two words says.
  const char* no = nullptr;
  const char* yes = nullptr;
  bool nullEnds = false;
  bool anyMember = false;
};

constexpr double kMostCount = 1e15;
constexpr double kLongestDelayMs = 600'000;

const Member kFault[]{
    {"kind", Kind::Word, "what goes wrong", 0, 0, faultKinds},
    {"delayMs", Kind::Number, "before that, or before a proper answer", 0, kLongestDelayMs},
    {"count", Kind::Number, "requests to hit; without it all", 0, kMostCount},
    {"url", Kind::Text, "only requests whose URL contains it"},
    {"httpStatus", Kind::Number, "of the kind reply", 200, 599},
    {"contentType", Kind::Text, "of the kind reply"},
    {"body", Kind::Text, "of the kind reply"},
    {"bytes", Kind::Number, "of the kind large", 0, OrderedFault::kLargestBody},
};
const Member kAlarm[]{
    {"type", Kind::Word, "what is raised", 0, 0, alarmTypes},
    {"count", Kind::Number, "how many", 1, double(AlarmFeed::kMostAlarms)},
    {"perSecond", Kind::Number, "how fast", 1, AlarmFeed::kMostPerSecond},
    {"alert", Kind::Object, "members (JSON) that replace or join those of the type"},
    {"raw", Kind::Text, "sent instead of a document"},
};
const Member kStream[]{
    {"lengths", Kind::Flag, "each part tells its length"},
    {"chunked", Kind::Flag, "the answer comes in chunks"},
    {"split", Kind::Number, "bytes of each write; 0: what is there", 0, 1e6},
};
const Member kLink[]{
    {"bytesPerSecond", Kind::Number, "that the device can send; 0: any number", 0, 1e9},
    {"delayMs", Kind::Number, "before each answer", 0, kLongestDelayMs},
};
const Member kReboot[]{{"seconds", Kind::Number, "that the device is away", 0, 86400}};

const Order kOrders[]{
    {"alarm", "alarm", "raises alarms", kAlarm},
    {"fault", "fault", "lets requests go wrong; \"fault none\" ends it", kFault, nullptr, nullptr,
     true},
    {"reboot", "reboot", "closes the port and all connections for a while", kReboot},
    {"link", "link", "makes the device's link slow; without options: fast again", kLink, nullptr,
     nullptr, true},
    {"listening", "power", "switches the device off or on", {}, "off", "on"},
    {"alertStream", "stream", "how alert streams opened from now on are framed", kStream},
    {"deviceInfo", "info", "members of the device information", {}, nullptr, nullptr, false, true},
    {"expireNonces", "expire-nonces", "makes the login's nonces stale"},
    {"unlock", "unlock", "ends the login's lock"},
    {"clearLog", "clear-log", "empties the log of requests"},
};

std::string inQuotes(std::string_view text) { return "\"" + std::string(text) + "\""; }

std::string joined(const auto& things, const auto& nameOf) {
  std::string text;
  for (const auto& thing : things) text += (text.empty() ? "" : ", ") + std::string(nameOf(thing));
  return text;
}

std::string wrongNumber(const Json::Value& value, const Member& member) {
  if (value.isNumeric() && value.asDouble() >= member.least && value.asDouble() <= member.most)
    return {};
  return "is no number from " + std::to_string(std::int64_t(member.least)) + " to " +
         std::to_string(std::int64_t(member.most));
}

std::string wrongWord(const Json::Value& value, const Member& member) {
  const auto words = member.words();
  if (value.isString() && std::ranges::count(words, value.asString()) == 1) return {};
  return "is none of " + joined(words, [](auto word) { return word; });
}

// Empty: nothing.
std::string wrongWithMember(const Json::Value& value, const Member& member) {
  switch (member.kind) {
    case Kind::Number:
      return wrongNumber(value, member);
    case Kind::Word:
      return wrongWord(value, member);
    case Kind::Flag:
      return value.isBool() ? "" : "is neither true nor false";
    case Kind::Text:
      return value.isString() ? "" : "is no text";
    case Kind::Object:
      return value.isObject() ? "" : "is no object";
  }
  return {};
}

std::string wrongWithOrder(const Json::Value& value, const Order& order) {
  if (order.nullEnds && value.isNull()) return {};
  if (order.members.empty() && !order.anyMember)
    return value.isBool() ? "" : inQuotes(order.name) + " is neither true nor false";
  if (!value.isObject()) return inQuotes(order.name) + " is no object";
  for (const auto& name : value.getMemberNames()) {
    if (order.anyMember) break;
    const auto known = std::ranges::find(order.members, name, &Member::name);
    if (known == order.members.end())
      return inQuotes(order.name) + " has no member " + inQuotes(name) + "; it has " +
             joined(order.members, [](const auto& member) { return member.name; });
    if (const auto wrong = wrongWithMember(value[name], *known); !wrong.empty())
      return inQuotes(name) + " of " + inQuotes(order.name) + " " + wrong;
  }
  return {};
}

// "--per-second" of "perSecond".
std::string optionName(std::string_view member) {
  std::string name = "--";
  for (const char c : member) {
    if (c != qn::text::lower(c)) name += '-';
    name += qn::text::lower(c);
  }
  return name;
}

// The value that a word of a command stands for; text where it is of no other kind, so that the
// check of the orders says what is wrong.
Json::Value valueOf(const std::string& word, Kind kind) {
  if (kind == Kind::Text || kind == Kind::Word) return word;
  return parseJson(word).value_or(word);
}

void declareMembers(CLI::App& command, const Order& order, Json::Value& value) {
  for (const Member& member : order.members) {
    const bool first = member.kind == Kind::Word;  // stands without its name
    auto* option = command.add_option_function<std::string>(
        first ? member.name : optionName(member.name),
        [&value, &member](const std::string& word) {
          value[member.name] = valueOf(word, member.kind);
        },
        member.help);
    if (first)
      option->required()->type_name(joined(member.words(), [](auto word) { return word; }));
  }
}

// The value lives as long as the command that fills it.
void declareOrder(CLI::App& app, const Order& order,
                  const std::function<void(const Json::Value&)>& given,
                  const std::function<void(CLI::App&)>& declared) {
  CLI::App* const command = app.add_subcommand(order.command, order.help);
  const auto value = std::make_shared<Json::Value>(Json::objectValue);
  if (order.no != nullptr)
    command
        ->add_option_function<std::string>(
            "state", [value, &order](const std::string& word) { *value = word == order.yes; })
        ->required()
        ->check(CLI::IsMember({order.no, order.yes}));
  else if (order.anyMember)
    command
        ->add_option_function<std::string>(
            "members", [value](const std::string& word) { *value = valueOf(word, Kind::Object); },
            "a JSON object")
        ->required();
  else if (order.members.empty())
    *value = true;
  declareMembers(*command, order, *value);
  if (declared) declared(*command);
  command->callback([value, &order, given] {
    Json::Value orders;
    orders[order.name] = *value;
    if (const auto wrong = wrongWithOrders(orders); !wrong.empty())
      throw CLI::ValidationError(wrong);
    given(orders);
  });
}

}  // namespace

std::string wrongWithOrders(const Json::Value& orders) {
  if (!orders.isObject()) return "the orders are no JSON object";
  for (const auto& name : orders.getMemberNames()) {
    const auto* known = std::ranges::find(kOrders, name, &Order::name);
    if (known == std::end(kOrders))
      return "there is no order " + inQuotes(name) + "; there are " +
             joined(kOrders, [](const auto& order) { return order.name; });
    if (auto wrong = wrongWithOrder(orders[name], *known); !wrong.empty()) return wrong;
  }
  return {};
}

void declareOrders(CLI::App& app, const std::function<void(const Json::Value&)>& given,
                   const std::function<void(CLI::App&)>& declared) {
  for (const Order& order : kOrders) declareOrder(app, order, given, declared);
}

Json::Value ordersOf(std::string_view words) {
  Json::Value orders;
  CLI::App app;
  app.set_help_flag();
  app.require_subcommand(1);
  declareOrders(app, [&orders](const Json::Value& given) { orders = given; });
  try {
    app.parse(std::string(words));
  } catch (const CLI::ParseError& error) {
    throw std::runtime_error(error.what());
  }
  return orders;
}

}  // namespace subdevice
