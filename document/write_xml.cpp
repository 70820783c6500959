#include "document/write_xml.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "text/bytes.h"
#include "text/number.h"
#include "text/xml.h"

namespace QNKAVROProtocol::table {
namespace {

using qn::json::Value;

constexpr std::size_t kUsualDocument = 1024;  // bytes that most fit into

// Where elements go: to a text, as QNBase::CXmlBase writes it. What is written waits in a buffer,
// so that the text does not grow for each element; finish() ends it.
class TextSink {
 public:
  explicit TextSink(std::string& text) : text_(text) {}

  void enter(std::string_view name) {
    endStart();
    putTag("<", name, "");
    inStart_ = true;
  }
  void leave(std::string_view name) {
    if (inStart_) return endEmpty();
    putTag("</", name, ">");
  }
  void leaf(std::string_view name, std::string_view text) {
    endStart();
    if (!text.empty() && putPlain(name, text)) return;
    enter(name);
    if (!text.empty()) putEscaped(text);
    leave(name);
  }
  void finish() {
    text_.append(buffer_.data(), used_);
    used_ = 0;
  }
  // How much was written; and once more the `size` that came after `from`, false where a sink
  // cannot.
  std::size_t written() const { return text_.size() + used_ + (inStart_ ? 1 : 0); }
  bool repeat(std::size_t from, std::size_t size) {
    if (size == 0) return true;
    endStart();
    finish();
    text_.append(text_, from, size);
    return true;
  }

 private:
  // Nearly every element: it fits into the buffer, and nothing in its text is escaped. False for
  // any other.
  bool putPlain(std::string_view name, std::string_view text) {
    const std::size_t size = 2 * name.size() + text.size() + 5;
    if (size > buffer_.size() || !qn::text::isPlainXml(text)) return false;
    if (size > buffer_.size() - used_) finish();
    char* at = buffer_.data() + used_;
    *at++ = '<';
    at = qn::text::copyTo(at, name);
    *at++ = '>';
    at = qn::text::copyTo(at, text);
    *at++ = '<';
    *at++ = '/';
    at = qn::text::copyTo(at, name);
    *at = '>';
    used_ += size;
    return true;
  }
  // Nothing may be left of the text.
  void putEscaped(std::string_view text) {
    endStart();
    finish();
    const std::size_t before = text_.size();
    qn::text::appendEscapedXml(text, qn::text::XmlPlace::Text, text_);
    if (text_.size() != before) return;
    text_.pop_back();  // the start's end
    inStart_ = true;
  }
  void putTag(std::string_view before, std::string_view name, std::string_view behind) {
    const std::size_t size = before.size() + name.size() + behind.size();
    if (size > buffer_.size() - used_) finish();
    if (size > buffer_.size()) {
      text_.append(before).append(name).append(behind);
      return;
    }
    char* at = buffer_.data() + used_;
    for (const std::string_view piece : {before, name, behind}) {
      at = qn::text::copyTo(at, piece);
    }
    used_ += size;
  }
  void endStart() {
    if (std::exchange(inStart_, false)) putTag(">", "", "");
  }
  void endEmpty() {
    inStart_ = false;
    putTag("/>", "", "");
  }

  std::string& text_;
  std::array<char, kUsualDocument> buffer_;
  std::size_t used_ = 0;
  bool inStart_ = false;  // the last tag is not ended yet: nothing may come in it
};

// ... or to a document.
class DocumentSink {
 public:
  explicit DocumentSink(QNBase::CXmlBase& document) : document_(document) {}

  void enter(std::string_view name) { document_.AddNode(name.data()); }
  void leave(std::string_view) { document_.OutOfElem(); }
  void leaf(std::string_view name, std::string_view text) {
    document_.AddNode(name.data(), text);
    document_.OutOfElem();
  }
  std::size_t written() const { return 0; }
  bool repeat(std::size_t /*from*/, std::size_t /*size*/) { return false; }

 private:
  QNBase::CXmlBase& document_;
};

// The document that is written, and what it has cost: an entry of one byte may stand for hundreds,
// and a list may repeat its first entry, so that the reply's own size is no bound.
template <class Sink>
class Output {
 public:
  explicit Output(Sink& sink) : sink_(sink) {}

  void enter(const Row& row) {
    sink_.enter(row.xml);
    cost_ += kStep;
  }
  void leave(const Row& row) { sink_.leave(row.xml); }
  void addLeaf(const Row& row, std::string_view text) {
    sink_.leaf(row.xml, row.shown.empty() ? text : row.shown);
    cost_ += kStep + text.size();
  }
  // Asked for each entry of a list, written or not.
  bool takesEntry() {
    cost_ += kStep;
    return cost_ <= kMost;
  }

  // What has been written since `from`, taken as it was at that time, once more.
  struct Mark {
    std::size_t place, cost;
  };
  Mark mark() const { return {sink_.written(), cost_}; }
  bool repeat(Mark from, Mark to) {
    cost_ += to.cost - from.cost;
    return sink_.repeat(from.place, to.place - from.place);
  }

 private:
  static constexpr std::size_t kMost = 32 * 1024 * 1024;
  static constexpr std::size_t kStep = 64;  // an element's tags, or the way to an entry

  Sink& sink_;
  std::size_t cost_ = 0;
};

bool isOfKind(const Row& row, const Value& value, Json::ValueType type) {
  switch (row.kind) {
    case Kind::Text:
      return type == Json::stringValue && !(row.neverEmpty && value.text().empty());
    case Kind::Integer:
      return value.isInt();
    case Kind::Boolean:
      return type == Json::booleanValue;
    case Kind::Real:
      return value.isNumeric();
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

bool holdsAll(Rows rows, const Value& object) {
  return std::ranges::all_of(rows,
                             [&](const Row& row) { return object.find(row.json).has_value(); });
}

// Else::Read for a value that qualifies; `value` is null for an absent one.
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

int integerOf(const Value& value) {
  if (value.isInt()) return value.asInt();
  if (!value.isNumeric()) return 0;
  const double whole = std::trunc(value.asDouble());
  return static_cast<int>(std::clamp(whole, double{INT_MIN}, double{INT_MAX}));
}

template <class Out>
const Row* writeRows(Out& out, Rows rows, const Value& object);

template <class Out>
void addText(Out& out, const Row& row, std::string_view text) {
  if (row.change == nullptr) {
    out.addLeaf(row, text);
  } else {
    out.addLeaf(row, row.change(text));
  }
}

template <class Out>
void addText(Out& out, const Row& row, const Value& value) {
  switch (value.type()) {
    case Json::stringValue:
      return addText(out, row, value.text());
    case Json::arrayValue:
    case Json::objectValue:
      return addText(out, row, std::string_view());
    default:
      return addText(out, row, std::string_view(value.asString()));
  }
}

template <class Out>
void addReal(Out& out, const Row& row, const Value& value) {
  char digits[384];  // the largest double has 309 digits before the point
  const auto written =
      std::to_chars(digits, digits + sizeof digits, value.asDouble(), std::chars_format::fixed, 6);
  out.addLeaf(row, {digits, static_cast<std::size_t>(written.ptr - digits)});
}

template <class Out>
const Row* writeEntries(Out& out, const Row& row, const Value& list) {
  Value::Entries entries(list);
  for (Value entry; entries.next(entry);) {
    if (!out.takesEntry()) return &row;
    if (const Row* failed = writeRows(out, row.rows, entry)) return failed;
  }
  return nullptr;
}

template <class Out>
const Row* repeatFirstEntry(Out& out, const Row& row, const Value& list) {
  Value first;
  if (!Value::Entries(list).next(first)) return nullptr;
  if (!out.takesEntry()) return &row;
  const typename Out::Mark before = out.mark();
  if (const Row* failed = writeRows(out, row.rows, first)) return failed;
  const typename Out::Mark behind = out.mark();
  for (std::size_t left = list.size() - 1; left != 0; --left) {
    if (!out.takesEntry()) return &row;
    if (!out.repeat(before, behind) && writeRows(out, row.rows, first) != nullptr) return &row;
  }
  return nullptr;
}

template <class Out>
const Row* writeContent(Out& out, const Row& row, const Value& value) {
  if (row.kind != Kind::List) return writeRows(out, row.rows, value);
  return row.repeatsFirst ? repeatFirstEntry(out, row, value) : writeEntries(out, row, value);
}

template <class Out>
const Row* writeSection(Out& out, const Row& row, const Value& value) {
  out.enter(row);
  const Row* failed = writeContent(out, row, value);
  out.leave(row);
  return failed;
}

template <class Out>
const Row* writeValue(Out& out, const Row& row, const Value& value) {
  switch (row.kind) {
    case Kind::Text:
      addText(out, row, value);
      break;
    case Kind::Integer:
      out.addLeaf(row, qn::text::Decimal(integerOf(value)).view());
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

template <class Out>
const Row* writeFallback(Out& out, const Row& row) {
  if (row.kind != Kind::Section) {
    out.addLeaf(row, row.fallbackText);
    return nullptr;
  }
  out.enter(row);
  const Row* failed = writeRows(out, row.fallbackRows, Value());
  out.leave(row);
  return failed;
}

// `member` is null for an absent one.
template <class Out>
const Row* writeRow(Out& out, const Row& row, const Value* member) {
  if (!row.write.written) return nullptr;
  // Nearly every member is a text or a number that qualifies.
  std::string_view text;
  if (row.kind == Kind::Text && member != nullptr && member->isText(text) && !text.empty()) {
    addText(out, row, text);
    return nullptr;
  }
  int number = 0;
  if (row.kind == Kind::Integer && member != nullptr && member->isInt(number) &&
      number >= row.least && number <= row.most) {
    out.addLeaf(row, qn::text::Decimal(number).view());
    return nullptr;
  }
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
  return writeValue(out, row, member == nullptr ? Value() : *member);
}

// The members of an object that its rows name, found in one walk: most objects have their members
// in the order of the rows. Of two members with one name the last counts.
class Members {
 public:
  Members(Rows rows, const Value& object) : rows_(rows) {
    Value::Members members(object);
    std::string_view name;
    const Row* guess = rows.begin();
    for (Value value; members.next(name, value);) {
      const Row* row = find(name, guess, rows.end());
      if (row == nullptr) row = find(name, rows.begin(), guess);
      if (row == nullptr) continue;
      values_[placeOf(*row)].value = value;
      found_ |= std::uint64_t{1} << placeOf(*row);
      guess = row + 1;
    }
  }
  // Null for an absent one.
  const Value* at(const Row& row) const {
    return ((found_ >> placeOf(row)) & 1U) != 0 ? &values_[placeOf(row)].value : nullptr;
  }

 private:
  static const Row* find(std::string_view name, const Row* from, const Row* to) {
    for (; from != to; ++from) {
      if (from->json == name && from->writesMember()) return from;
    }
    return nullptr;
  }
  std::size_t placeOf(const Row& row) const {
    return static_cast<std::size_t>(&row - rows_.begin());
  }

  // Made when its member is found: most tables have far fewer rows than there are slots.
  union Slot {
    Slot() {}  // NOLINT(modernize-use-equals-default): that would be deleted
    Value value;
  };
  static_assert(std::is_trivially_copyable_v<Value>);

  const Rows rows_;
  std::uint64_t found_ = 0;
  std::array<Slot, Rows::kMost> values_;
};

template <class Out>
const Row* writeRows(Out& out, Rows rows, const Value& object) {
  const Members members(rows, object);
  for (const Row& row : rows) {
    if (const Row* failed = writeRow(out, row, members.at(row))) return failed;
  }
  return nullptr;
}

template <class Out>
const Row* writeMember(Out& out, const Row& row, const Value& object) {
  const auto member = object.find(row.json);
  return writeRow(out, row, member ? &*member : nullptr);
}

template <class Write>
const Row* writeText(std::string& xml, Write write) {
  TextSink sink(xml);
  Output out(sink);
  const Row* failed = write(out);
  sink.finish();
  return failed;
}

}  // namespace

const Row* writeMember(std::string& xml, const Row& row, const Value& reply) {
  return writeText(xml, [&](auto& out) { return writeMember(out, row, reply); });
}

const Row* writeRows(std::string& xml, Rows rows, const Value& object) {
  return writeText(xml, [&](auto& out) { return writeRows(out, rows, object); });
}

const Row* writeRows(QNBase::CXmlBase& xml, Rows rows, const Value& object) {
  DocumentSink sink(xml);
  Output out(sink);
  return writeRows(out, rows, object);
}

const Row* writeRow(QNBase::CXmlBase& xml, const Row& row, const Value& member) {
  DocumentSink sink(xml);
  Output out(sink);
  return writeRow(out, row, &member);
}

const Row* writeDocument(std::string& xml, const Row& root, const Value& reply) {
  std::string text;
  text.reserve(kUsualDocument);
  text += kDeclaration;
  const Row* failed = writeMember(text, root, reply);
  if (failed == nullptr) xml = std::move(text);
  return failed;
}

}  // namespace QNKAVROProtocol::table
