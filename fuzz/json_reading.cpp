// Any text: the reader's values and places are jsoncpp's.
#include <algorithm>
#include <string>
#include <string_view>

#include "fuzz/require.h"
#include "json/extents.h"
#include "json/reader.h"
#include "json/text.h"

namespace {

bool sameScalar(const qn::json::Value& value, const Json::Value& expected) {
  return value.type() == expected.type() && value.size() == expected.size() &&
         value.isInt() == expected.isInt() && value.isNumeric() == expected.isNumeric() &&
         value.asString() == expected.asString() &&
         (!expected.isInt() || value.asInt() == expected.asInt()) &&
         (!expected.isNumeric() || value.asDouble() == expected.asDouble()) &&
         (!expected.isBool() || value.asBool() == expected.asBool());
}

bool same(const qn::json::Value& value, const Json::Value& expected) {
  if (value.isArray() && expected.isArray()) {
    qn::json::Value::Entries entries(value);
    qn::json::Value entry;
    return value.size() == expected.size() &&
           std::all_of(expected.begin(), expected.end(), [&](const Json::Value& each) {
             return entries.next(entry) && same(entry, each);
           });
  }
  if (!value.isObject() || !expected.isObject()) return sameScalar(value, expected);
  for (const std::string& name : expected.getMemberNames()) {
    const auto member = value.find(name);
    if (!member || !same(*member, expected[name])) return false;
  }
  return value.copy() == expected;
}

bool agrees(std::string_view text) {
  Json::Value expected;
  const bool isJson = qn::json::parseJson(text, expected);
  const qn::json::Reading reading(text);
  if (!isJson) return !reading.isJson() && reading.root().isNull();
  return reading.isJson() && same(reading.root(), expected);
}

// The places of a text's objects are those of jsoncpp's members; of two with one name it has one.
bool agreesOnExtents(std::string_view text) {
  Json::Value root;
  const auto extent = qn::json::objectExtent(text);
  if (!qn::json::parseJson(text, root) || !root.isObject()) return !extent;
  if (!extent || static_cast<std::size_t>(root.getOffsetStart()) != extent->begin ||
      static_cast<std::size_t>(root.getOffsetLimit()) != extent->end) {
    return false;
  }
  return std::all_of(root.begin(), root.end(), [&](const Json::Value& member) {
    const auto end = static_cast<std::size_t>(member.getOffsetLimit());
    const auto found = std::ranges::find(extent->members, end, &qn::json::ObjectExtent::end);
    return member.isObject() ? found != extent->members.end() && found->isEmpty == member.empty()
                             : found == extent->members.end();
  });
}

}  // namespace

void fuzz(std::string_view input) {
  Require(agrees(input));
  Require(agreesOnExtents(input));
}
