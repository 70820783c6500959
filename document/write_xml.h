// JSON to XML: applies field tables (table.h). Called by the converters. Any thread; never throws
// for what the JSON holds.
#pragma once

#include <json/json.h>

#include "document/plain_value.h"
#include "document/table.h"
#include "platform/xml_base.h"

namespace QNKAVROProtocol::table {

// All return null on success, else the row that stopped the conversion; what was written until then
// stays in `xml`. A list that makes the document grow beyond some 32 MiB, or walks over half a
// million entries, stops it too.

// A document with its declaration: `root`, a section or list, is a member of `reply`. A root that
// is left out leaves the declaration alone.
[[nodiscard]] const Row* writeDocument(QNBase::CXmlBase& xml, const Row& root,
                                       const Json::Value& reply);
// Appends the elements of an object's members to the element that `xml` has entered.
[[nodiscard]] const Row* writeRows(QNBase::CXmlBase& xml, Rows rows, const Json::Value& object);
[[nodiscard]] const Row* writeRows(QNBase::CXmlBase& xml, Rows rows, const PlainValue& object);
// Appends one row's element; `member` is its value, null for an absent one.
[[nodiscard]] const Row* writeRow(QNBase::CXmlBase& xml, const Row& row, const Json::Value* member);

}  // namespace QNKAVROProtocol::table
