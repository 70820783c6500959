#include "document/read_xml.h"

#include <algorithm>
#include <array>
#include <utility>

#include "json/text.h"
#include "platform/zrt.h"
#include "text/number.h"

namespace QNKAVROProtocol::table {
namespace {

// An object's members as they are read; written in the order of their names, as jsoncpp does.
class ObjectText {
 public:
  // Opens a member; what is appended to the result until the next call is its value.
  std::string& add(std::string_view name) {
    members_[count_++] = {name, text_.size(), 0};
    return text_;
  }
  bool empty() const { return count_ == 0; }

  void write(std::string& out) {
    for (std::size_t i = 0; i < count_; ++i) {
      members_[i].end = i + 1 < count_ ? members_[i + 1].begin : text_.size();
    }
    std::sort(members_.begin(), members_.begin() + static_cast<std::ptrdiff_t>(count_),
              [](const Member& a, const Member& b) { return a.name < b.name; });
    char separator = '{';
    for (std::size_t i = 0; i < count_; ++i) {
      const Member& member = members_[i];
      out += std::exchange(separator, ',');
      qn::json::appendQuoted(out, member.name);
      out.append(1, ':').append(text_, member.begin, member.end - member.begin);
    }
    out += count_ == 0 ? "{}" : "}";
  }

 private:
  static constexpr std::size_t kMost = Rows::kMost + 1;  // with a given one
  struct Member {
    std::string_view name;
    std::size_t begin, end;
  };

  std::string text_;
  std::array<Member, kMost> members_;
  std::size_t count_ = 0;
};

bool isTrue(const Row& row, std::string_view text) {
  return row.falseOnlyForFalse ? text != "false" : text == "true";
}

void writeValue(std::string& out, const Row& row, const std::string& text) {
  switch (row.kind) {
    case Kind::Integer:
      return qn::text::appendDecimal(out, ZRT_Atoi32(text.c_str()));
    case Kind::Boolean:
      out += isTrue(row, text) ? "true" : "false";
      return;
    default:
      return qn::json::appendQuoted(out, text);
  }
}

bool isLeaf(const Row& row) { return row.rows.begin() == row.rows.end(); }

// `content` is the text of an object or array, empty for nothing.
void addContent(ObjectText& object, const Row& row, std::string_view content) {
  if (content.empty()) return;
  if (row.kind == Kind::FirstOf) {
    object.add(row.json).append(1, '[').append(content).append(1, ']');
  } else {
    object.add(row.json).append(content);
  }
}

// What the fallbacks below a missing element make of it.
void addFallback(ObjectText& object, const Row& row) {
  if (isLeaf(row)) return writeValue(object.add(row.json), row, std::string(row.fallbackText));
  ObjectText inner;
  for (const Row& each : row.rows) {
    if (each.read == read::fallback) addFallback(inner, each);
  }
  std::string content;
  if (!inner.empty()) inner.write(content);
  addContent(object, row, content);
}

const Row* readRows(ObjectText& object, Rows rows, QNBase::CXmlBase& xml);

// One entry for each child; a child that the rows do not know gives the next one they do know, or
// null when none follows. A list without children has one null entry.
const Row* readEntries(std::string& out, Rows rows, QNBase::CXmlBase& xml) {
  char separator = '[';
  do {
    ObjectText entry;
    if (const Row* failed = readRows(entry, rows, xml)) return failed;
    out += std::exchange(separator, ',');
    if (entry.empty()) {
      out += "null";
    } else {
      entry.write(out);
    }
  } while (xml.NextSibElem());
  out += ']';
  return nullptr;
}

const Row* readMembers(std::string& out, Rows rows, QNBase::CXmlBase& xml) {
  ObjectText object;
  const Row* failed = readRows(object, rows, xml);
  if (failed == nullptr && !object.empty()) object.write(out);
  return failed;
}

const Row* readContent(ObjectText& object, const Row& row, QNBase::CXmlBase& xml) {
  if (!xml.IntoElem()) return &row;
  std::string content;
  const Row* failed = row.kind == Kind::List ? readEntries(content, row.rows, xml)
                                             : readMembers(content, row.rows, xml);
  xml.OutOfElem();
  if (failed == nullptr) addContent(object, row, content);
  return failed;
}

const Row* readLeaf(ObjectText& object, const Row& row, const QNBase::CXmlBase& xml) {
  const std::string text = xml.GetData();
  if (row.neverEmpty && text.empty()) return &row;
  writeValue(object.add(row.json), row, text);
  return nullptr;
}

const Row* readRow(ObjectText& object, const Row& row, QNBase::CXmlBase& xml) {
  if (row.read == read::never) return nullptr;
  const bool found =
      row.anyPlace ? xml.FindElemNoOrder(row.xml.data()) : xml.FindElem(row.xml.data());
  if (found) return isLeaf(row) ? readLeaf(object, row, xml) : readContent(object, row, xml);
  if (row.read == read::required) return &row;
  if (row.read == read::fallback) addFallback(object, row);
  return nullptr;
}

const Row* readRows(ObjectText& object, Rows rows, QNBase::CXmlBase& xml) {
  for (const Row& row : rows) {
    if (const Row* failed = readRow(object, row, xml)) return failed;
  }
  return nullptr;
}

}  // namespace

BodyResult readDocument(std::string& json, const Row& root, std::string_view body,
                        const GivenMember* given) {
  QNBase::CXmlBase xml;
  if (!xml.Parse(body)) return BodyResult::NotXml;
  if (!xml.FindElem(root.xml.data()) || !xml.IntoElem()) return BodyResult::OtherRoot;
  ObjectText object;
  if (readRows(object, root.rows, xml) != nullptr) return BodyResult::Refused;
  if (given != nullptr) object.add(given->name) += given->json;
  std::string text = "{";
  qn::json::appendQuoted(text, root.json);
  text += ':';
  object.write(text);
  text += "}\n";
  json = std::move(text);
  return BodyResult::Done;
}

const Row* readRows(Json::Value& object, Rows rows, QNBase::CXmlBase& xml) {
  std::string text;
  const Row* failed = readMembers(text, rows, xml);
  if (failed == nullptr && !text.empty()) qn::json::parseJson(text, object);
  return failed;
}

}  // namespace QNKAVROProtocol::table
