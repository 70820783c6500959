#include "document/write_xml.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "document/json_member.h"

namespace QNKAVROProtocol::table {
namespace {

bool isOfKind(const Row& row, const Json::Value& value, Json::ValueType type) {
  switch (row.kind) {
    case Kind::Text:
      return type == Json::stringValue && !(row.neverEmpty && jsonText(value).empty());
    case Kind::Integer:
      return value.isInt();
    case Kind::Boolean:
      return type == Json::booleanValue;
    case Kind::Real:
      return value.isDouble();
    case Kind::Section:
      return type == Json::objectValue;
    case Kind::List:
      return type == Json::arrayValue;
    case Kind::Constant:
    case Kind::FirstOf:
      break;
  }
  return false;
}

bool holdsAll(Rows rows, const Json::Value& object) {
  return std::all_of(rows.begin(), rows.end(),
                     [&](const Row& row) { return jsonMember(object, row.json) != nullptr; });
}

// Else::Read for a value that qualifies.
Else judge(const Row& row, const Json::Value* value) {
  if (value == nullptr) return row.write.absent;
  const Json::ValueType type = value->type();
  if (type == Json::nullValue) return row.write.null;
  if (!isOfKind(row, *value, type)) return row.write.wrongKind;
  if (row.kind == Kind::Integer && (value->asInt() < row.least || value->asInt() > row.most)) {
    return row.outOfRange;
  }
  if (row.needsAll && !holdsAll(row.rows, *value)) return row.write.absent;
  return Else::Read;
}

int integerOf(const Json::Value& value) {
  if (value.isInt()) return value.asInt();
  if (!value.isNumeric()) return 0;
  const double whole = std::trunc(value.asDouble());
  return static_cast<int>(std::clamp(whole, double{INT_MIN}, double{INT_MAX}));
}

void addLeaf(QNBase::CXmlBase& xml, const Row& row, std::string_view text) {
  xml.AddNode(row.xml, row.shown.empty() ? text : row.shown);
  xml.OutOfElem();
}

void addText(QNBase::CXmlBase& xml, const Row& row, std::string_view text) {
  if (row.change == nullptr) {
    addLeaf(xml, row, text);
  } else {
    addLeaf(xml, row, row.change(text));
  }
}

void addText(QNBase::CXmlBase& xml, const Row& row, const Json::Value& value) {
  switch (value.type()) {
    case Json::stringValue:
      return addText(xml, row, jsonText(value));
    case Json::arrayValue:
    case Json::objectValue:
      return addText(xml, row, std::string_view());
    default:
      return addText(xml, row, std::string_view(value.asString()));
  }
}

void addInteger(QNBase::CXmlBase& xml, const Row& row, const Json::Value& value) {
  char digits[16];
  const auto written = std::to_chars(digits, digits + sizeof digits, integerOf(value));
  addLeaf(xml, row, {digits, static_cast<std::size_t>(written.ptr - digits)});
}

void addReal(QNBase::CXmlBase& xml, const Row& row, const Json::Value& value) {
  char digits[384];  // the largest double has 309 digits before the point
  const auto written =
      std::to_chars(digits, digits + sizeof digits, value.asDouble(), std::chars_format::fixed, 6);
  addLeaf(xml, row, {digits, static_cast<std::size_t>(written.ptr - digits)});
}

const Row* writeEntries(QNBase::CXmlBase& xml, const Row& row, const Json::Value& entries) {
  if (!entries.isArray()) return nullptr;
  for (const Json::Value& entry : entries) {
    const Json::Value& source = row.repeatsFirst ? *entries.begin() : entry;
    if (const Row* failed = writeRows(xml, row.rows, source)) return failed;
  }
  return nullptr;
}

const Row* writeContent(QNBase::CXmlBase& xml, const Row& row, const Json::Value& value) {
  return row.kind == Kind::List ? writeEntries(xml, row, value) : writeRows(xml, row.rows, value);
}

const Row* writeSection(QNBase::CXmlBase& xml, const Row& row, const Json::Value& value) {
  xml.AddNode(row.xml);
  const Row* failed = writeContent(xml, row, value);
  xml.OutOfElem();
  return failed;
}

const Row* writeValue(QNBase::CXmlBase& xml, const Row& row, const Json::Value& value) {
  switch (row.kind) {
    case Kind::Text:
      addText(xml, row, value);
      break;
    case Kind::Integer:
      addInteger(xml, row, value);
      break;
    case Kind::Boolean:
      addLeaf(xml, row, value.isBool() && value.asBool() ? "true" : "false");
      break;
    case Kind::Real:
      addReal(xml, row, value);
      break;
    case Kind::Constant:
      addLeaf(xml, row, row.shown);
      break;
    case Kind::Section:
    case Kind::List:
      return writeSection(xml, row, value);
    case Kind::FirstOf:
      break;
  }
  return nullptr;
}

const Row* writeFallback(QNBase::CXmlBase& xml, const Row& row) {
  if (row.kind != Kind::Section) {
    addLeaf(xml, row, row.fallbackText);
    return nullptr;
  }
  xml.AddNode(row.xml);
  const Row* failed = writeRows(xml, row.fallbackRows, Json::Value::nullSingleton());
  xml.OutOfElem();
  return failed;
}

}  // namespace

const Row* writeRow(QNBase::CXmlBase& xml, const Row& row, const Json::Value* member) {
  if (!row.write.written) return nullptr;
  switch (judge(row, member)) {
    case Else::LeaveOut:
      return nullptr;
    case Else::Fail:
      return &row;
    case Else::Fallback:
      return writeFallback(xml, row);
    case Else::Read:
      break;
  }
  return writeValue(xml, row, member == nullptr ? Json::Value::nullSingleton() : *member);
}

const Row* writeRows(QNBase::CXmlBase& xml, Rows rows, const Json::Value& object) {
  const bool hasMembers = object.isObject();
  for (const Row& row : rows) {
    const char* name = row.json.data();
    const Json::Value* member = hasMembers && row.kind != Kind::Constant
                                    ? object.find(name, name + row.json.size())
                                    : nullptr;
    if (const Row* failed = writeRow(xml, row, member)) return failed;
  }
  return nullptr;
}

const Row* writeDocument(QNBase::CXmlBase& xml, const Row& root, const Json::Value& reply) {
  xml.CreateDeclaration("1.0", "UTF-8");
  const Json::Value* member = jsonMember(reply, root.json);
  const Else verdict = judge(root, member);
  if (verdict == Else::Fail) return &root;
  if (verdict == Else::LeaveOut) return nullptr;
  xml.CreateRoot(root.xml);
  return writeContent(xml, root, member == nullptr ? Json::Value::nullSingleton() : *member);
}

}  // namespace QNKAVROProtocol::table
