// A JSON value as conversions see it, whichever library has read it: a handle on simdjson's tape or
// on a Json::Value, with jsoncpp's results. Used by the table engine, the converters and the
// pass-through.
#pragma once

#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qn::json {

// Copied freely; valid as long as what it points to: a Reading (reader.h) or a Json::Value. Null
// when default-constructed.
class Value {
 public:
  class Members;
  class Entries;

  Value() = default;
  Value(const Json::Value& value) : read_(&value) {}  // NOLINT: slots take either

  Json::ValueType type() const;
  bool isNull() const { return type() == Json::nullValue; }
  bool isObject() const { return type() == Json::objectValue; }
  bool isArray() const { return type() == Json::arrayValue; }
  bool isString() const { return type() == Json::stringValue; }
  bool isBool() const { return type() == Json::booleanValue; }
  bool isNumeric() const;
  bool isInt() const;  // any number that is whole and fits
  // Of a value for which the predicate holds.
  bool asBool() const;
  int asInt() const;
  double asDouble() const;
  std::string_view text() const;              // of a string; empty for other kinds
  bool isText(std::string_view& text) const;  // whether it is a string, and which
  bool isInt(int& number) const;              // whether isInt(), and which
  std::string asString() const;               // of a scalar; empty for null
  Json::Value copy() const;

  std::size_t size() const;  // of an array or object, 0 for other kinds
  bool empty() const { return size() == 0; }
  // Nothing for an absent member and for a value that is no object. Of two members with one name
  // the last counts. Walks the whole object: for one or two names.
  std::optional<Value> find(std::string_view name) const;
  // The same, null for nothing.
  Value member(std::string_view name) const { return find(name).value_or(Value()); }

 private:
  friend class Reading;

  // What simdjson calls an element, kept as two words so that its header stays out of ours.
  struct Element {
    const void* document = nullptr;
    std::size_t place = 0;
  };

  explicit Value(Element element) : element_(element) {}

  const Json::Value* read_ = nullptr;
  Element element_;
};

// Walks the members of an object in the order of its reader; none for other values.
class Value::Members {
 public:
  explicit Members(const Value& object);
  // False at the end.
  bool next(std::string_view& name, Value& value);

 private:
  Json::Value::const_iterator at_, end_;
  Element elementAt_, elementEnd_;
};

// Walks the entries of an array; none for other values.
class Value::Entries {
 public:
  explicit Entries(const Value& array);
  bool next(Value& entry);

 private:
  Json::Value::const_iterator at_, end_;
  Element elementAt_, elementEnd_;
};

}  // namespace qn::json
