// See faults.h.
#include "subdevice/faults.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "subdevice/resources.h"

namespace subdevice {
namespace {

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

std::vector<std::string_view> faultKinds() {
  std::vector<std::string_view> names(kKinds.size());
  std::ranges::transform(kKinds, names.begin(), [](const auto& row) { return row.first; });
  return names;
}

void Faults::order(const Json::Value& order) {
  const std::string name = order.get("kind", "none").asString();
  fault_.kind = std::ranges::find(kKinds, name, [](const auto& row) { return row.first; })->second;
  fault_.delay = std::chrono::milliseconds(order.get("delayMs", 0).asInt());
  fault_.bytes = order.get("bytes", 0).asUInt();
  fault_.reply.status = order.get("httpStatus", 200).asUInt();
  fault_.reply.contentType = order.get("contentType", "application/json").asString();
  fault_.reply.body = order.get("body", "").asString();
  url_ = order.get("url", "").asString();
  remaining_ = order.isMember("count") ? order["count"].asUInt64() : kForever;
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
