// A device's alert stream: whatever comes, in one piece or in many, gives the same parts, and an
// alarm never belongs to another device than the one that sent it.
#include <json/json.h>

#include <string>
#include <vector>

#include "fuzz/require.h"
#include "gateway/alarmbus/alarm_text.h"
#include "gateway/alarmbus/multipart_reader.h"

namespace {

constexpr std::size_t kPartLimit = 4096;

void CheckIndex(std::string_view body) {
  std::string out;
  if (!qn::setDeviceIndex(body, "\"own\"", out)) return;
  Json::Value root;
  try {
    if (!Json::Reader().parse(out, root) || !root.isObject()) return;
  } catch (const Json::Exception&) {  // nested too deeply
    return;
  }
  const Json::Value& alert = root["EventNotificationAlert"];
  Require(!alert.isObject() || alert["devIndex"] == "own");
}

std::vector<std::string> Read(std::string_view stream, std::size_t piece) {
  std::vector<std::string> parts;
  qn::MultipartReader reader("b", kPartLimit, [&](std::string_view, std::string_view body) {
    Require(body.size() <= kPartLimit);
    parts.emplace_back(body);
  });
  for (; !stream.empty(); stream.remove_prefix(std::min(piece, stream.size()))) {
    if (!reader.feed(stream.substr(0, piece))) break;
  }
  return parts;
}

}  // namespace

void fuzz(std::string_view stream) {
  CheckIndex(stream);
  if (stream.size() > kPartLimit) return;  // what a limit cuts depends on the pieces
  const auto parts = Read(stream, stream.size());
  for (const auto& part : parts) CheckIndex(part);
  for (const std::size_t piece : {1, 2, 7}) Require(Read(stream, piece) == parts);
}
