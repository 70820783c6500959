// See faults.h.
#include "subdevice/faults.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "subdevice/resources.h"

namespace subdevice {
namespace {

constexpr int kLongestDelayMs = 10 * 60 * 1000;

constexpr std::array<std::pair<std::string_view, FaultKind>, 8> kKinds{
    {{"none", FaultKind::None},
     {"refuse", FaultKind::Refuse},
     {"hang", FaultKind::Hang},
     {"cut", FaultKind::Cut},
     {"garbage", FaultKind::Garbage},
     {"empty", FaultKind::Empty},
     {"reply", FaultKind::Reply},
     {"large", FaultKind::Large}}};

}  // namespace

bool Faults::order(const Json::Value& order) {
  const std::string name = order.get("kind", "none").asString();
  const auto* kind = std::ranges::find(kKinds, name, [](const auto& row) { return row.first; });
  const int delay = order.get("delayMs", 0).asInt();
  const unsigned status = order.get("httpStatus", 200).asUInt();
  const std::size_t bytes = order.get("bytes", 0).asUInt();
  if (kind == kKinds.end() || delay < 0 || delay > kLongestDelayMs || status < 200 ||
      status > 599 || bytes > OrderedFault::kLargestBody)
    return false;
  OrderedFault next{kind->second, std::chrono::milliseconds(delay), {}, bytes};
  next.reply.status = status;
  next.reply.contentType = order.get("contentType", "application/json").asString();
  next.reply.body = order.get("body", "").asString();
  url_ = order.get("url", "").asString();
  remaining_ = order.isMember("count") ? order["count"].asUInt() : kForever;
  fault_ = std::move(next);
  return true;
}

void Faults::clear() { remaining_ = 0; }

OrderedFault Faults::take(const Request& request) {
  if (remaining_ == 0 || !hits(request)) return {};
  if (remaining_ != kForever) --remaining_;
  return fault_;
}

bool Faults::hits(const Request& request) const {
  if (url_.empty()) return request.path != kAlertStreamPath;
  return request.target.find(url_) != std::string::npos;
}

}  // namespace subdevice
