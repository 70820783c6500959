#include "json/extents.h"

#include <algorithm>
#include <memory>

#include "json/padded.h"
#include "json/text.h"

namespace qn::json {
namespace {

// simdjson's tape has no places, its walk through the text has; the walk alone takes texts that are
// no JSON, and another reader might see another nesting in those.
class ExtentReader {
 public:
  bool read(std::string_view text, RootExtent& extent) {
    simdjson::dom::element root;
    simdjson::dom::object members;
    if (!strict_.read(text, root) || root.get(members) != simdjson::SUCCESS) return false;
    extent.begin = text.find('{');
    extent.end = text.rfind('}') + 1;
    if (members.size() != 1) return walk(extent);
    // Its end is the last but one closing brace of the text.
    simdjson::dom::object only;
    if ((*members.begin()).value.get(only) == simdjson::SUCCESS) {
      extent.members.push_back({text.rfind('}', extent.end - 2) + 1, only.size() == 0});
    }
    return true;
  }
  bool isSmall() const { return strict_.isSmall(); }

 private:
  // The text that was read has any number of members.
  bool walk(RootExtent& extent) {
    simdjson::ondemand::document walked;
    simdjson::ondemand::object object;
    if (walk_.iterate(strict_.held()).get(walked) || walked.get_object().get(object)) return false;
    for (auto member : object) {
      simdjson::ondemand::value value;
      if (std::move(member).value().get(value)) return false;
      if (!addMember(value, extent)) return false;
    }
    return true;
  }
  bool addMember(simdjson::ondemand::value value, RootExtent& extent) {
    simdjson::ondemand::json_type type;
    if (value.type().get(type)) return false;
    if (type != simdjson::ondemand::json_type::object) return true;
    simdjson::ondemand::object object;
    std::string_view raw;
    if (value.get_object().get(object) || object.raw_json().get(raw)) return false;
    const std::size_t end = raw.rfind('}') + 1;
    const bool isEmpty = raw.find_first_not_of(" \t\r\n", 1) == end - 1;
    extent.members.push_back(
        {static_cast<std::size_t>(raw.data() - strict_.held().data()) + end, isEmpty});
    return true;
  }

  StrictParser strict_;
  simdjson::ondemand::parser walk_;
};

std::size_t place(std::ptrdiff_t offset) { return static_cast<std::size_t>(offset); }

bool readFast(std::string_view text, RootExtent& extent) {
  thread_local std::unique_ptr<ExtentReader> reader;
  if (!reader) reader = std::make_unique<ExtentReader>();
  const bool read = reader->read(text, extent);
  if (!reader->isSmall()) reader.reset();
  return read;
}

}  // namespace

std::optional<RootExtent> objectExtent(std::string_view text) {
  RootExtent extent{};
  if (!mayBeJson(text)) return std::nullopt;
  if (readFast(text, extent)) return extent;
  Json::Value root;
  if (!parseJson(text, root) || !root.isObject()) return std::nullopt;
  extent = {place(root.getOffsetStart()), place(root.getOffsetLimit()), {}};
  for (const Json::Value& member : root) {
    if (!member.isObject()) continue;
    extent.members.push_back({place(member.getOffsetLimit()), member.empty()});
  }
  std::ranges::sort(extent.members, {}, &ObjectExtent::end);  // jsoncpp has them by name
  return extent;
}

std::optional<std::size_t> valueEnd(std::string_view text) {
  Json::Value root;
  if (!parseJson(text, root) || !(root.isObject() || root.isArray())) return std::nullopt;
  return place(root.getOffsetLimit());
}

}  // namespace qn::json
