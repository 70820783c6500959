#include "document/write_xml.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "document/json_member.h"

namespace QNKAVROProtocol::table {
namespace {

// The interpreters are templates: Value is Json::Value or PlainValue.

// The document that is written, and what it has cost: an entry of one byte may stand for hundreds,
// and a list may repeat its first entry, so that the reply's own size is no bound.
class Output {
 public:
  explicit Output(QNBase::CXmlBase& document) : document_(document) {}

  void enter(const Row& row) {
    document_.AddNode(row.xml);
    cost_ += kStep;
  }
  void leave() { document_.OutOfElem(); }
  void addLeaf(const Row& row, std::string_view text) {
    document_.AddNode(row.xml, row.shown.empty() ? text : row.shown);
    document_.OutOfElem();
    cost_ += kStep + text.size();
  }
  // Asked for each entry of a list, written or not.
  bool takesEntry() {
    cost_ += kStep;
    return cost_ <= kMost;
  }

 private:
  static constexpr std::size_t kMost = 32 * 1024 * 1024;
  static constexpr std::size_t kStep = 64;  // an element's tags, or the way to an entry

  QNBase::CXmlBase& document_;
  std::size_t cost_ = 0;
};

template <class Value>
bool isOfKind(const Row& row, const Value& value, Json::ValueType type) {
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

template <class Value>
bool holdsAll(Rows rows, const Value& object) {
  return std::all_of(rows.begin(), rows.end(),
                     [&](const Row& row) { return jsonMember(object, row.json) != nullptr; });
}

// Else::Read for a value that qualifies.
template <class Value>
Else judge(const Row& row, const Value* value) {
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

template <class Value>
int integerOf(const Value& value) {
  if (value.isInt()) return value.asInt();
  if (!value.isNumeric()) return 0;
  const double whole = std::trunc(value.asDouble());
  return static_cast<int>(std::clamp(whole, double{INT_MIN}, double{INT_MAX}));
}

template <class Value>
const Row* writeRows(Output& out, Rows rows, const Value& object);

void addText(Output& out, const Row& row, std::string_view text) {
  if (row.change == nullptr) {
    out.addLeaf(row, text);
  } else {
    out.addLeaf(row, row.change(text));
  }
}

template <class Value>
void addText(Output& out, const Row& row, const Value& value) {
  switch (value.type()) {
    case Json::stringValue:
      return addText(out, row, jsonText(value));
    case Json::arrayValue:
    case Json::objectValue:
      return addText(out, row, std::string_view());
    default:
      return addText(out, row, std::string_view(value.asString()));
  }
}

template <class Value>
void addInteger(Output& out, const Row& row, const Value& value) {
  char digits[16];
  const auto written = std::to_chars(digits, digits + sizeof digits, integerOf(value));
  out.addLeaf(row, {digits, static_cast<std::size_t>(written.ptr - digits)});
}

template <class Value>
void addReal(Output& out, const Row& row, const Value& value) {
  char digits[384];  // the largest double has 309 digits before the point
  const auto written =
      std::to_chars(digits, digits + sizeof digits, value.asDouble(), std::chars_format::fixed, 6);
  out.addLeaf(row, {digits, static_cast<std::size_t>(written.ptr - digits)});
}

template <class Value>
const Row* writeEntries(Output& out, const Row& row, const Value& entries) {
  if (!entries.isArray()) return nullptr;
  for (const Value& entry : entries) {
    if (!out.takesEntry()) return &row;
    const Value& source = row.repeatsFirst ? *entries.begin() : entry;
    if (const Row* failed = writeRows(out, row.rows, source)) return failed;
  }
  return nullptr;
}

template <class Value>
const Row* writeContent(Output& out, const Row& row, const Value& value) {
  return row.kind == Kind::List ? writeEntries(out, row, value) : writeRows(out, row.rows, value);
}

template <class Value>
const Row* writeSection(Output& out, const Row& row, const Value& value) {
  out.enter(row);
  const Row* failed = writeContent(out, row, value);
  out.leave();
  return failed;
}

template <class Value>
const Row* writeValue(Output& out, const Row& row, const Value& value) {
  switch (row.kind) {
    case Kind::Text:
      addText(out, row, value);
      break;
    case Kind::Integer:
      addInteger(out, row, value);
      break;
    case Kind::Boolean:
      out.addLeaf(row, value.isBool() && value.asBool() ? "true" : "false");
      break;
    case Kind::Real:
      addReal(out, row, value);
      break;
    case Kind::Constant:
      out.addLeaf(row, row.shown);
      break;
    case Kind::Section:
    case Kind::List:
      return writeSection(out, row, value);
    case Kind::FirstOf:
      break;
  }
  return nullptr;
}

const Row* writeFallback(Output& out, const Row& row) {
  if (row.kind != Kind::Section) {
    out.addLeaf(row, row.fallbackText);
    return nullptr;
  }
  out.enter(row);
  const Row* failed = writeRows(out, row.fallbackRows, Json::Value::nullSingleton());
  out.leave();
  return failed;
}

template <class Value>
const Row* writeRow(Output& out, const Row& row, const Value* member) {
  if (!row.write.written) return nullptr;
  switch (judge(row, member)) {
    case Else::LeaveOut:
      return nullptr;
    case Else::Fail:
      return &row;
    case Else::Fallback:
      return writeFallback(out, row);
    case Else::Read:
      break;
  }
  return writeValue(out, row, member == nullptr ? Value::nullSingleton() : *member);
}

template <class Value>
const Row* writeRows(Output& out, Rows rows, const Value& object) {
  const bool hasMembers = object.isObject();
  for (const Row& row : rows) {
    const char* name = row.json.data();
    const Value* member = hasMembers && row.kind != Kind::Constant
                              ? object.find(name, name + row.json.size())
                              : nullptr;
    if (const Row* failed = writeRow(out, row, member)) return failed;
  }
  return nullptr;
}

}  // namespace

const Row* writeRow(QNBase::CXmlBase& xml, const Row& row, const Json::Value* member) {
  Output out(xml);
  return writeRow(out, row, member);
}

const Row* writeRows(QNBase::CXmlBase& xml, Rows rows, const Json::Value& object) {
  Output out(xml);
  return writeRows(out, rows, object);
}

const Row* writeRows(QNBase::CXmlBase& xml, Rows rows, const PlainValue& object) {
  Output out(xml);
  return writeRows(out, rows, object);
}

const Row* writeDocument(QNBase::CXmlBase& xml, const Row& root, const Json::Value& reply) {
  xml.CreateDeclaration("1.0", "UTF-8");
  const Json::Value* member = jsonMember(reply, root.json);
  const Else verdict = judge(root, member);
  if (verdict == Else::Fail) return &root;
  if (verdict == Else::LeaveOut) return nullptr;
  xml.CreateRoot(root.xml);
  Output out(xml);
  return writeContent(out, root, member == nullptr ? Json::Value::nullSingleton() : *member);
}

}  // namespace QNKAVROProtocol::table
