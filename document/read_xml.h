// XML to JSON: applies field tables (table.h). Called by the converters. Any thread.
#pragma once

#include <json/json.h>

#include <string>
#include <string_view>

#include "document/table.h"
#include "platform/xml_base.h"

namespace QNKAVROProtocol::table {

// Reads the children of the element that `xml` has entered into `object`, which becomes an object
// with the first member. Null on success, else the row that stopped the conversion; `object` and
// the position in `xml` are of no use then.
[[nodiscard]] const Row* readRows(Json::Value& object, Rows rows, QNBase::CXmlBase& xml);

// Parses a request's body and enters its root; false when it is no XML or has another root.
bool enterRoot(QNBase::CXmlBase& xml, std::string_view body, const char* root);

// The JSON text of an object with `content` as its one member.
std::string writeJsonUnder(const char* root, Json::Value content);

}  // namespace QNKAVROProtocol::table
