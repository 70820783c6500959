// Field tables: a document of the protocol as one constexpr array of rows, in document order. A row
// names a JSON member and an XML element, the kind of value they hold, and in words what becomes of
// one that is absent or not as it should be. write_xml.h and read_xml.h walk the tables; a
// converter is its table and the call that applies it.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace QNKAVROProtocol::table {

enum class Kind : uint8_t {
  Text,
  Integer,
  Boolean,
  Real,      // written with six decimals
  Constant,  // an element with a fixed text, without a member
  Section,   // an object and an element, both with members of their own
  List,      // an array; the rows describe each of its entries, which are objects
  FirstOf,   // read only: an array of one object, made from the element's first children
};

// What becomes of a member or element that does not qualify.
enum class Else : uint8_t {
  LeaveOut,
  Fail,      // the whole conversion
  Fallback,  // the row's fallback takes its place
  Read,      // read as far as it goes: a scalar's text, a number's whole part or 0, true only for
             // true, a section or list without content
};

// JSON to XML: by how the member does not qualify. A member of the row's kind is always written.
struct WriteRule {
  bool written = false;
  Else absent = Else::LeaveOut;
  Else null = Else::LeaveOut;
  Else wrongKind = Else::LeaveOut;
};

// XML to JSON: an element that is there is read whatever its text, unless the row is filled().
enum class ReadRule : uint8_t { Never, Optional, Required, Fallback };

namespace write {
inline constexpr WriteRule never{};
inline constexpr WriteRule optional{true, Else::LeaveOut, Else::LeaveOut, Else::LeaveOut};
inline constexpr WriteRule strict{true, Else::LeaveOut, Else::Fail, Else::Fail};
inline constexpr WriteRule lenient{true, Else::LeaveOut, Else::Read, Else::Read};
inline constexpr WriteRule required{true, Else::Fail, Else::Fail, Else::Fail};
inline constexpr WriteRule required_or_null{true, Else::Fail, Else::Read, Else::Fail};
inline constexpr WriteRule present{true, Else::Fail, Else::Read, Else::Read};
inline constexpr WriteRule always{true, Else::Read, Else::Read, Else::Read};
inline constexpr WriteRule fallback{true, Else::Fallback, Else::Fallback, Else::Fallback};
}  // namespace write

namespace read {
inline constexpr ReadRule never = ReadRule::Never;
inline constexpr ReadRule optional = ReadRule::Optional;
inline constexpr ReadRule required = ReadRule::Required;
inline constexpr ReadRule fallback = ReadRule::Fallback;
}  // namespace read

struct Row;

// A table. Made from an array only, at compile time, which refuses one that names a row twice.
class Rows {
 public:
  static constexpr std::size_t kMost = 40;  // rows of one table

  constexpr Rows() = default;
  template <std::size_t N>
  consteval Rows(const Row (&rows)[N]);
  constexpr const Row* begin() const { return first_; }
  constexpr const Row* end() const;
  // The `count` rows from `first` on.
  constexpr Rows part(std::size_t first, std::size_t count) const;

 private:
  const Row* first_ = nullptr;
  std::size_t count_ = 0;
};

using TextChange = std::string (*)(std::string_view);

// A row is made by one of the functions below it and refined by its members, each of which adds one
// word. Names and texts are string literals.
struct Row {
  std::string_view json;
  std::string_view xml;
  Kind kind;
  WriteRule write;
  ReadRule read;
  Rows rows;
  uint64_t order;  // see orderOf, of the member

  std::string_view fallbackText{};
  Rows fallbackRows{};
  int least = INT_MIN;
  int most = INT_MAX;
  Else outOfRange = Else::LeaveOut;
  std::string_view shown{};
  TextChange change = nullptr;
  bool neverEmpty = false;
  bool anyPlace = false;
  bool falseOnlyForFalse = false;
  bool needsAll = false;
  bool repeatsFirst = false;
  int number = 0;

 private:
  // This row with one word changed. Stands before its uses: clang 14 evaluates them only then.
  template <typename T, typename V>
  constexpr Row with(T Row::*word, V value) const {
    Row row = *this;
    row.*word = value;
    return row;
  }

 public:
  // The element's name, where it differs from the member's.
  constexpr Row as(std::string_view name) const { return with(&Row::xml, name); }
  constexpr Row fallback(std::string_view text) const { return with(&Row::fallbackText, text); }
  constexpr Row fallback(Rows constants) const { return with(&Row::fallbackRows, constants); }
  // Written only from `from` to `to`.
  constexpr Row within(int from, int to, Else otherwise) const {
    return with(&Row::least, from).with(&Row::most, to).with(&Row::outOfRange, otherwise);
  }
  // An empty text does not qualify: written, it counts as a wrong kind; read, it fails.
  constexpr Row filled() const { return with(&Row::neverEmpty, true); }
  // Written with this text whatever the value is.
  constexpr Row shownAs(std::string_view text) const { return with(&Row::shown, text); }
  // Written with the text that `function` makes of the member's.
  constexpr Row changedBy(TextChange function) const { return with(&Row::change, function); }
  // The element is looked for among all children; the others only behind the one before.
  constexpr Row anywhere() const { return with(&Row::anyPlace, true); }
  // Read as true unless the text is "false"; the others are true only for "true".
  constexpr Row trueUnlessFalse() const { return with(&Row::falseOnlyForFalse, true); }
  // A section without one of its members counts as absent.
  constexpr Row whole() const { return with(&Row::needsAll, true); }
  // Every entry of the list is written from the first one.
  constexpr Row firstEachTime() const { return with(&Row::repeatsFirst, true); }
  // Whether writing needs the member.
  constexpr bool writesMember() const { return write.written && kind != Kind::Constant; }
  // What the caller's log calls this row when it fails.
  constexpr Row failing(int logNumber) const { return with(&Row::number, logNumber); }
};

constexpr const Row* Rows::end() const { return first_ + count_; }

constexpr Rows Rows::part(std::size_t first, std::size_t count) const {
  Rows part;
  part.first_ = first_ + first;
  part.count_ = count;
  return part;
}

// No element is written by two rows or from one member, and no member read by two.
constexpr bool distinct(const Row* rows, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    for (std::size_t j = i + 1; j < count; ++j) {
      const bool written = rows[i].write.written && rows[j].write.written;
      const bool member = rows[i].writesMember() && rows[j].writesMember();
      const bool read = rows[i].read != read::never && rows[j].read != read::never;
      if (written && rows[i].xml == rows[j].xml) return false;
      if ((read || member) && rows[i].json == rows[j].json) return false;
    }
  }
  return true;
}

void twoRowsWriteOneElementOrReadOneMember();  // not constexpr: a table that calls it fails

template <std::size_t N>
consteval Rows::Rows(const Row (&rows)[N]) : first_(rows), count_(N) {
  static_assert(N <= kMost);
  if (!distinct(rows, N)) twoRowsWriteOneElementOrReadOneMember();
}

// Compares like the first eight bytes of the name.
constexpr uint64_t orderOf(std::string_view name) {
  uint64_t order = 0;
  for (std::size_t i = 0; i < sizeof order; ++i) {
    order = order << 8 | (i < name.size() ? static_cast<unsigned char>(name[i]) : 0);
  }
  return order;
}

constexpr Row row(const char* name, Kind kind, WriteRule write, ReadRule read, Rows rows = {}) {
  return Row{name, name, kind, write, read, rows, orderOf(name)};
}

constexpr Row text(const char* name, WriteRule write, ReadRule read = read::never) {
  return row(name, Kind::Text, write, read);
}
constexpr Row text(const char* name, ReadRule read) {
  return row(name, Kind::Text, write::never, read);
}
constexpr Row integer(const char* name, WriteRule write, ReadRule read = read::never) {
  return row(name, Kind::Integer, write, read);
}
constexpr Row integer(const char* name, ReadRule read) {
  return row(name, Kind::Integer, write::never, read);
}
constexpr Row boolean(const char* name, WriteRule write, ReadRule read = read::never) {
  return row(name, Kind::Boolean, write, read);
}
constexpr Row boolean(const char* name, ReadRule read) {
  return row(name, Kind::Boolean, write::never, read);
}
constexpr Row real(const char* name, WriteRule write) {
  return row(name, Kind::Real, write, read::never);
}
constexpr Row constant(const char* name, std::string_view text) {
  return row(name, Kind::Constant, write::always, read::never).shownAs(text);
}
constexpr Row section(const char* name, Rows rows, WriteRule write, ReadRule read = read::never) {
  return row(name, Kind::Section, write, read, rows);
}
constexpr Row section(const char* name, Rows rows, ReadRule read) {
  return row(name, Kind::Section, write::never, read, rows);
}
constexpr Row list(const char* name, Rows rows, WriteRule write, ReadRule read = read::never) {
  return row(name, Kind::List, write, read, rows);
}
constexpr Row firstOf(const char* name, Rows rows, ReadRule read) {
  return row(name, Kind::FirstOf, write::never, read, rows);
}

}  // namespace QNKAVROProtocol::table
