#include "document/read_xml.h"

#include <algorithm>
#include <array>
#include <utility>

#include "json/text.h"
#include "platform/zrt.h"
#include "text/number.h"

namespace QNKAVROProtocol::table {
namespace {

// Names of tables are literals without a character that JSON writes in another way.
void appendName(std::string& out, std::string_view name) {
  out += '"';
  out += name;
  out += "\":";
}

// An object's members as they are read, at the end of a text that all objects of a document share,
// so that it grows once; written in the order of their names, as jsoncpp does. Objects inside of it
// are done before its next member.
class ObjectText {
 public:
  explicit ObjectText(std::string& text) : text_(text), begin_(text.size()) {}

  // Opens a member; what is appended to the text until the next call is its value.
  std::string& add(std::string_view name, uint64_t order) {
    members_[count_++] = {order, name.data(), name.size(), text_.size(), 0};
    return text_;
  }
  std::string& add(const Row& row) { return add(row.json, row.order); }
  bool empty() const { return count_ == 0; }
  // Forgets the last member when it has no value.
  void dropEmpty() {
    if (members_[count_ - 1].begin == text_.size()) --count_;
  }

  // Puts the object in the place of its members.
  void write() {
    const std::size_t end = text_.size();
    for (std::size_t i = 0; i < count_; ++i) {
      members_[i].size = (i + 1 < count_ ? members_[i + 1].begin : end) - members_[i].begin;
    }
    std::sort(members_.begin(), members_.begin() + static_cast<std::ptrdiff_t>(count_));
    text_ += '{';
    for (std::size_t i = 0; i < count_; ++i) {
      const Member& member = members_[i];
      if (i != 0) text_ += ',';
      appendName(text_, member.name());
      text_.append(text_, member.begin, member.size);
    }
    text_ += '}';
    text_.erase(begin_, end - begin_);
  }

 private:
  static constexpr std::size_t kMost = Rows::kMost + 1;  // with a given one
  struct Member {
    uint64_t order;
    const char* nameBegin;
    std::size_t nameSize;
    std::size_t begin;
    std::size_t size;

    std::string_view name() const { return {nameBegin, nameSize}; }
    bool operator<(const Member& other) const {
      return order == other.order ? name() < other.name() : order < other.order;
    }
  };

  std::string& text_;
  const std::size_t begin_;
  std::array<Member, kMost> members_;  // the first count_ of them
  std::size_t count_ = 0;
};

bool isTrue(const Row& row, std::string_view text) {
  return row.falseOnlyForFalse ? text != "false" : text == "true";
}

// As ZRT_Atoi32 reads it; nearly every text is a number and nothing else.
void writeInteger(std::string& out, const std::string& text) {
  const auto number = qn::text::wholeNumber<int32_t>(text);
  qn::text::appendDecimal(out, number ? *number : ZRT_Atoi32(text.c_str()));
}

void writeValue(std::string& out, const Row& row, const std::string& text) {
  switch (row.kind) {
    case Kind::Integer:
      return writeInteger(out, text);
    case Kind::Boolean:
      out += isTrue(row, text) ? "true" : "false";
      return;
    default:
      return qn::json::appendQuoted(out, text);
  }
}

bool isLeaf(const Row& row) { return row.rows.begin() == row.rows.end(); }

// Appends the object that `fill` gives members to, in a list where the row says so; nothing without
// members. Returns what `fill` does: the row that failed, or null.
template <class Fill>
const Row* appendObject(std::string& text, const Row& row, Fill fill) {
  const bool inList = row.kind == Kind::FirstOf;
  if (inList) text += '[';
  ObjectText object(text);
  const Row* failed = fill(object);
  if (object.empty()) {
    if (inList) text.pop_back();
    return failed;
  }
  object.write();
  if (inList) text += ']';
  return failed;
}

// What the fallbacks below a missing element make of it.
void addFallback(ObjectText& object, const Row& row) {
  std::string& text = object.add(row);
  if (isLeaf(row)) return writeValue(text, row, std::string(row.fallbackText));
  appendObject(text, row, [&row](ObjectText& inner) -> const Row* {
    for (const Row& each : row.rows) {
      if (each.read == read::fallback) addFallback(inner, each);
    }
    return nullptr;
  });
  object.dropEmpty();
}

const Row* readRows(ObjectText& object, Rows rows, QNBase::CXmlBase& xml);

// One entry for each child; a child that the rows do not know gives the next one they do know, or
// null when none follows. A list without children has one null entry.
const Row* readEntries(std::string& text, Rows rows, QNBase::CXmlBase& xml) {
  char separator = '[';
  do {
    text += std::exchange(separator, ',');
    ObjectText entry(text);
    if (const Row* failed = readRows(entry, rows, xml)) return failed;
    if (entry.empty()) {
      text += "null";
    } else {
      entry.write();
    }
  } while (xml.NextSibElem());
  text += ']';
  return nullptr;
}

const Row* readMembers(std::string& text, const Row& row, QNBase::CXmlBase& xml) {
  return appendObject(text, row,
                      [&](ObjectText& members) { return readRows(members, row.rows, xml); });
}

const Row* readContent(ObjectText& object, const Row& row, QNBase::CXmlBase& xml) {
  if (!xml.IntoElem()) return &row;
  std::string& text = object.add(row);
  const Row* failed =
      row.kind == Kind::List ? readEntries(text, row.rows, xml) : readMembers(text, row, xml);
  xml.OutOfElem();
  object.dropEmpty();
  return failed;
}

const Row* readLeaf(ObjectText& object, const Row& row, const QNBase::CXmlBase& xml) {
  const std::string text = xml.GetData();
  if (row.neverEmpty && text.empty()) return &row;
  writeValue(object.add(row), row, text);
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
  std::string text = "{";
  text.reserve(body.size());
  appendName(text, root.json);
  ObjectText object(text);
  if (readRows(object, root.rows, xml) != nullptr) return BodyResult::Refused;
  if (given != nullptr) object.add(given->name, orderOf(given->name)) += given->json;
  object.write();
  text += "}\n";
  json = std::move(text);
  return BodyResult::Done;
}

const Row* readRows(Json::Value& object, Rows rows, QNBase::CXmlBase& xml) {
  std::string text;
  ObjectText members(text);
  if (const Row* failed = readRows(members, rows, xml)) return failed;
  if (members.empty()) return nullptr;
  members.write();
  qn::json::parseJson(text, object);
  return nullptr;
}

}  // namespace QNKAVROProtocol::table
