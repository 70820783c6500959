// See json_text.h.
#include "subdevice/json_text.h"

#include <memory>

namespace subdevice {
namespace {

constexpr int kDepthLimit = 200;

Json::CharReaderBuilder readerSettings() {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  builder["stackLimit"] = kDepthLimit;
  return builder;
}

Json::StreamWriterBuilder writerSettings() {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return builder;
}

}  // namespace

std::optional<Json::Value> parseJson(std::string_view text) {
  static const std::unique_ptr<Json::CharReader> reader(readerSettings().newCharReader());
  Json::Value value;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) return {};
  } catch (const Json::Exception&) {  // deeper than the limit
    return {};
  }
  return value;
}

std::string writeJson(const Json::Value& value) {
  static const Json::StreamWriterBuilder settings = writerSettings();
  return Json::writeString(settings, value);
}

void mergeJson(Json::Value& target, const Json::Value& change) {
  if (!change.isObject() || !target.isObject()) {
    target = change;
    return;
  }
  for (const auto& name : change.getMemberNames()) mergeJson(target[name], change[name]);
}

}  // namespace subdevice
