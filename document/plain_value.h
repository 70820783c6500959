// JSON that holds nothing unusual, read without a copy: for texts that come thousands of times a
// second, where building a Json::Value costs more than all the rest. Called by alert/.
#pragma once

#include <json/json.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace QNKAVROProtocol {

// A value with those operations of Json::Value that conversions use, and the same results. Points
// into the text and the PlainJson that it was read from.
class PlainValue {
 public:
  class Iterator {
   public:
    explicit Iterator(const PlainValue* at) : at_(at) {}
    const PlainValue& operator*() const { return *at_; }
    Iterator& operator++() {
      at_ = at_->next_;
      return *this;
    }
    bool operator!=(const Iterator& other) const { return at_ != other.at_; }

   private:
    const PlainValue* at_;
  };

  static const PlainValue& nullSingleton();

  Json::ValueType type() const { return type_; }
  bool isObject() const { return type_ == Json::objectValue; }
  bool isArray() const { return type_ == Json::arrayValue; }
  bool isString() const { return type_ == Json::stringValue; }
  bool isBool() const { return type_ == Json::booleanValue; }
  bool isNumeric() const { return type_ == Json::intValue || type_ == Json::realValue; }
  bool isDouble() const { return isNumeric(); }
  bool isInt() const;
  bool asBool() const { return number_ != 0; }
  int asInt() const { return static_cast<int>(number_); }
  double asDouble() const { return number_; }
  std::string asString() const;
  std::string_view text() const { return text_; }  // of a string

  std::size_t size() const { return size_; }  // of an array or object
  bool empty() const { return size_ == 0; }
  Iterator begin() const { return Iterator(first_); }  // of an array
  Iterator end() const { return Iterator(nullptr); }
  const PlainValue* find(const char* begin, const char* end) const;

 private:
  friend class PlainJson;

  Json::ValueType type_ = Json::nullValue;
  std::string_view name_;  // as a member
  std::string_view text_;
  double number_ = 0;
  std::size_t size_ = 0;
  const PlainValue* first_ = nullptr;  // of an array or object
  const PlainValue* next_ = nullptr;   // after this one
};

inline const PlainValue* jsonMember(const PlainValue& value, std::string_view name) {
  return value.isObject() ? value.find(name.data(), name.data() + name.size()) : nullptr;
}

inline std::string_view jsonText(const PlainValue& value) { return value.text(); }

// Reads texts one after another.
class PlainJson {
 public:
  PlainJson();

  // The object that the text is, valid until the next call; null for everything that the library
  // has to judge: what is no JSON, escapes, comments, numbers of many digits, deep nesting, more
  // than 1024 values.
  const PlainValue* read(std::string_view text);

 private:
  char next();
  bool take(char c);
  PlainValue* add();
  bool value(PlainValue& out, int depth);
  bool members(PlainValue& out, int depth);
  bool elements(PlainValue& out, int depth);
  bool string(std::string_view& out);
  bool literal(PlainValue& out, std::string_view word, Json::ValueType type, double number);
  bool number(PlainValue& out);
  bool digits(int most);

  std::vector<PlainValue> values_;  // never grows
  const char* at_ = nullptr;
  const char* end_ = nullptr;
};

}  // namespace QNKAVROProtocol
