#include "document/read_xml.h"

#include <utility>

#include "document/json_text.h"
#include "platform/zrt.h"

namespace QNKAVROProtocol::table {
namespace {

void setMember(Json::Value& object, const Row& row, Json::Value value) {
  object[Json::StaticString(row.json.data())] = std::move(value);
}

bool isTrue(const Row& row, const std::string& text) {
  return row.falseOnlyForFalse ? text != "false" : text == "true";
}

Json::Value valueOf(const Row& row, const std::string& text) {
  switch (row.kind) {
    case Kind::Integer:
      return ZRT_Atoi32(text.c_str());
    case Kind::Boolean:
      return isTrue(row, text);
    default:
      return text;
  }
}

bool isLeaf(const Row& row) { return row.rows.begin() == row.rows.end(); }

// What the fallbacks below a missing element make of it; null when there are none.
Json::Value fallbackOf(const Row& row) {
  if (isLeaf(row)) return valueOf(row, std::string(row.fallbackText));
  Json::Value object;
  for (const Row& inner : row.rows) {
    if (inner.read == read::fallback) setMember(object, inner, fallbackOf(inner));
  }
  return object;
}

void setContent(Json::Value& object, const Row& row, Json::Value content) {
  if (content.isNull()) return;
  if (row.kind == Kind::FirstOf) {
    Json::Value entries(Json::arrayValue);
    entries.append(std::move(content));
    content = std::move(entries);
  }
  setMember(object, row, std::move(content));
}

// One entry for each child; a child that the rows do not know gives the next one they do know, or
// null when none follows. A list without children has one null entry.
const Row* readEntries(Json::Value& entries, Rows rows, QNBase::CXmlBase& xml) {
  entries = Json::Value(Json::arrayValue);
  do {
    Json::Value entry;
    if (const Row* failed = readRows(entry, rows, xml)) return failed;
    entries.append(std::move(entry));
  } while (xml.NextSibElem());
  return nullptr;
}

const Row* readContent(Json::Value& object, const Row& row, QNBase::CXmlBase& xml) {
  if (!xml.IntoElem()) return &row;
  Json::Value content;
  const Row* failed = row.kind == Kind::List ? readEntries(content, row.rows, xml)
                                             : readRows(content, row.rows, xml);
  xml.OutOfElem();
  if (failed == nullptr) setContent(object, row, std::move(content));
  return failed;
}

const Row* readLeaf(Json::Value& object, const Row& row, const QNBase::CXmlBase& xml) {
  const std::string text = xml.GetData();
  if (row.neverEmpty && text.empty()) return &row;
  setMember(object, row, valueOf(row, text));
  return nullptr;
}

const Row* readRow(Json::Value& object, const Row& row, QNBase::CXmlBase& xml) {
  if (row.read == read::never) return nullptr;
  const bool found = row.anyPlace ? xml.FindElemNoOrder(row.xml) : xml.FindElem(row.xml);
  if (found) return isLeaf(row) ? readLeaf(object, row, xml) : readContent(object, row, xml);
  if (row.read == read::required) return &row;
  if (row.read == read::fallback) setContent(object, row, fallbackOf(row));
  return nullptr;
}

}  // namespace

const Row* readRows(Json::Value& object, Rows rows, QNBase::CXmlBase& xml) {
  for (const Row& row : rows) {
    if (const Row* failed = readRow(object, row, xml)) return failed;
  }
  return nullptr;
}

bool enterRoot(QNBase::CXmlBase& xml, std::string_view body, const char* root) {
  return xml.Parse(body) && xml.FindElem(root) && xml.IntoElem();
}

std::string writeJsonUnder(const char* root, Json::Value content) {
  Json::Value whole(Json::objectValue);
  whole[root] = std::move(content);
  return writeJson(whole);
}

}  // namespace QNKAVROProtocol::table
