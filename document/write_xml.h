// JSON to XML: applies field tables (table.h). Called by the converters. Any thread; never throws
// for what the JSON holds.
#pragma once

#include <string>
#include <string_view>

#include "document/table.h"
#include "json/value.h"
#include "platform/xml_base.h"

namespace QNKAVROProtocol::table {

inline constexpr std::string_view kDeclaration = R"(<?xml version="1.0" encoding="UTF-8"?>)";

// All append to what is there and return null on success, else the row that stopped the conversion;
// what was written until then is of no use. A list that makes the document grow beyond some 32 MiB,
// or walks over half a million entries, stops it too.

// An element: `row`, a section or list, is a member of `reply`.
[[nodiscard]] const Row* writeMember(std::string& xml, const Row& row,
                                     const qn::json::Value& reply);
// The elements of an object's members.
[[nodiscard]] const Row* writeRows(std::string& xml, Rows rows, const qn::json::Value& object);

// The same into a document, behind the children of the element that it has entered.
[[nodiscard]] const Row* writeRows(QNBase::CXmlBase& xml, Rows rows, const qn::json::Value& object);
// One row's element; `member` is its value.
[[nodiscard]] const Row* writeRow(QNBase::CXmlBase& xml, const Row& row,
                                  const qn::json::Value& member);

// Makes `xml` the whole document of a reply, its declaration first. Null, or the row that stopped
// the conversion with `xml` as it was.
[[nodiscard]] const Row* writeDocument(std::string& xml, const Row& root,
                                       const qn::json::Value& reply);

}  // namespace QNKAVROProtocol::table
