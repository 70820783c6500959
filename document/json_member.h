// Access to JSON members that may not be there: the library throws on anything but an object.
#pragma once

#include <json/json.h>

#include <string_view>

namespace QNKAVROProtocol {

// Null when value is no object or has no such member.
inline const Json::Value* jsonMember(const Json::Value& value, std::string_view name) {
  return value.isObject() ? value.find(name.data(), name.data() + name.size()) : nullptr;
}

// The characters of a JSON text, valid as long as the value; empty for other kinds.
inline std::string_view jsonText(const Json::Value& value) {
  const char* begin = nullptr;
  const char* end = nullptr;
  if (!value.getString(&begin, &end)) return {};
  return {begin, static_cast<std::size_t>(end - begin)};
}

}  // namespace QNKAVROProtocol
