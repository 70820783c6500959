// JSON text to values and back, for every file of the simulator.
#pragma once

#include <json/json.h>

#include <optional>
#include <string>
#include <string_view>

namespace subdevice {

// Nothing for text that is not JSON or is nested too deeply.
std::optional<Json::Value> parseJson(std::string_view text);

// Compact, without a line break at the end.
std::string writeJson(const Json::Value& value);

// Takes over what `change` holds: objects member by member, anything else as a whole.
void mergeJson(Json::Value& target, const Json::Value& change);

}  // namespace subdevice
