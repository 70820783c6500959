// XML to JSON: applies field tables (table.h). Called by the converters. Any thread.
#pragma once

#include <json/json.h>

#include <string>
#include <string_view>

#include "document/table.h"
#include "platform/xml_base.h"

namespace QNKAVROProtocol::table {

enum class BodyResult {
  Done,
  NotXml,
  OtherRoot,
  Refused,  // a row failed
};

// A member that no element of the document gives, as JSON text.
struct GivenMember {
  std::string_view name;
  std::string json;
};

// Makes `json` the text that a device takes for a client's document: an object whose one member is
// `root`, a section, with its members and `given` among them, in the order of their names, and a
// line feed. Nothing is changed unless Done.
[[nodiscard]] BodyResult readDocument(std::string& json, const Row& root, std::string_view body,
                                      const GivenMember* given = nullptr);

// Reads the children of the element that `xml` has entered into `object`, which becomes an object
// with the first member. Null on success, else the row that stopped the conversion; `object` and
// the position in `xml` are of no use then.
[[nodiscard]] const Row* readRows(Json::Value& object, Rows rows, QNBase::CXmlBase& xml);

}  // namespace QNKAVROProtocol::table
