#include "json/value.h"

#include <simdjson.h>

#include <bit>
#include <cmath>
#include <limits>

namespace qn::json {
namespace {

using simdjson::dom::element;
using simdjson::dom::element_type;
using ObjectIterator = simdjson::dom::object::iterator;
using ArrayIterator = simdjson::dom::array::iterator;

template <class Native, class Words>
Native native(Words words) {
  static_assert(sizeof(Native) == sizeof(Words) && std::is_trivially_copyable_v<Native>);
  return std::bit_cast<Native>(words);
}

constexpr int64_t kLeastInt = std::numeric_limits<int>::min();
constexpr int64_t kMostInt = std::numeric_limits<int>::max();

// On an element of the right type, as the callers have made sure.
template <class T>
T get(const element& value) {
  return value.get<T>().value_unsafe();
}

}  // namespace

Json::ValueType Value::type() const {
  if (read_ != nullptr) return read_->type();
  if (element_.document == nullptr) return Json::nullValue;
  switch (native<element>(element_).type()) {
    case element_type::ARRAY:
      return Json::arrayValue;
    case element_type::OBJECT:
      return Json::objectValue;
    case element_type::INT64:
      return get<int64_t>(native<element>(element_)) > kMostInt ? Json::uintValue : Json::intValue;
    case element_type::UINT64:
      return Json::uintValue;
    case element_type::DOUBLE:
      return Json::realValue;
    case element_type::STRING:
      return Json::stringValue;
    case element_type::BOOL:
      return Json::booleanValue;
    case element_type::NULL_VALUE:
      break;
  }
  return Json::nullValue;
}

bool Value::isNumeric() const {
  const Json::ValueType kind = type();
  return kind == Json::intValue || kind == Json::uintValue || kind == Json::realValue;
}

bool Value::isInt() const {
  int number = 0;
  return isInt(number);
}

bool Value::isInt(int& number) const {
  if (read_ != nullptr) {
    if (!read_->isInt()) return false;
    number = read_->asInt();
    return true;
  }
  if (element_.document == nullptr) return false;
  const auto value = native<element>(element_);
  switch (value.type()) {
    case element_type::INT64: {
      const auto whole = get<int64_t>(value);
      if (whole < kLeastInt || whole > kMostInt) return false;
      number = static_cast<int>(whole);
      return true;
    }
    case element_type::DOUBLE: {
      const auto real = get<double>(value);
      if (real < kLeastInt || real > kMostInt || std::trunc(real) != real) return false;
      number = static_cast<int>(real);
      return true;
    }
    default:  // an unsigned one is above all that fit
      return false;
  }
}

bool Value::asBool() const {
  return read_ != nullptr ? read_->asBool() : get<bool>(native<element>(element_));
}

int Value::asInt() const {
  if (read_ != nullptr) return read_->asInt();
  return type() == Json::realValue ? static_cast<int>(asDouble())
                                   : static_cast<int>(get<int64_t>(native<element>(element_)));
}

// The library rounds an unsigned integer of more than 53 bits twice.
double Value::asDouble() const {
  if (read_ != nullptr) return read_->asDouble();
  return type() == Json::uintValue ? copy().asDouble() : get<double>(native<element>(element_));
}

std::string_view Value::text() const {
  std::string_view text;
  return isText(text) ? text : std::string_view();
}

bool Value::isText(std::string_view& text) const {
  if (read_ == nullptr) {
    return element_.document != nullptr && native<element>(element_).get(text) == simdjson::SUCCESS;
  }
  const char* begin = nullptr;
  const char* end = nullptr;
  if (!read_->getString(&begin, &end)) return false;
  text = {begin, static_cast<std::size_t>(end - begin)};
  return true;
}

std::string Value::asString() const {
  if (read_ != nullptr) return read_->asString();
  return isString() ? std::string(text()) : copy().asString();
}

Json::Value Value::copy() const {
  if (read_ != nullptr) return *read_;
  const Json::ValueType kind = type();
  const auto value = native<element>(element_);
  switch (kind) {
    case Json::intValue:
      return Json::Value(Json::LargestInt{get<int64_t>(value)});
    case Json::uintValue:
      return Json::Value(Json::LargestUInt{get<uint64_t>(value)});
    case Json::realValue:
      return Json::Value(get<double>(value));
    case Json::booleanValue:
      return Json::Value(get<bool>(value));
    case Json::stringValue:
      return Json::Value(text().data(), text().data() + text().size());
    default:
      break;
  }
  Json::Value whole(kind);
  Members members(*this);
  std::string_view name;
  for (Value each; members.next(name, each);) whole[std::string(name)] = each.copy();
  Entries entries(*this);
  for (Value each; entries.next(each);) whole.append(each.copy());
  return whole;
}

std::size_t Value::size() const {
  const Json::ValueType kind = type();
  if (kind != Json::arrayValue && kind != Json::objectValue) return 0;
  if (read_ != nullptr) return read_->size();
  const auto value = native<element>(element_);
  return kind == Json::arrayValue ? get<simdjson::dom::array>(value).size()
                                  : get<simdjson::dom::object>(value).size();
}

std::optional<Value> Value::find(std::string_view name) const {
  if (read_ != nullptr && read_->isObject()) {
    const Json::Value* member = read_->find(name.data(), name.data() + name.size());
    return member != nullptr ? std::optional<Value>(*member) : std::nullopt;
  }
  std::optional<Value> found;
  simdjson::dom::object members;
  if (element_.document == nullptr || native<element>(element_).get(members) != simdjson::SUCCESS) {
    return found;
  }
  for (const auto& [key, value] : members) {
    if (key == name) found = Value(native<Element>(value));
  }
  return found;
}

Value::Members::Members(const Value& object) {
  if (object.read_ != nullptr) {
    if (!object.read_->isObject()) return;
    at_ = object.read_->begin();
    end_ = object.read_->end();
    return;
  }
  if (object.element_.document == nullptr) return;
  simdjson::dom::object members;
  if (native<element>(object.element_).get(members) != simdjson::SUCCESS) return;
  elementAt_ = native<Element>(members.begin());
  elementEnd_ = native<Element>(members.end());
}

bool Value::Members::next(std::string_view& name, Value& value) {
  if (elementAt_.document == nullptr) {
    if (at_ == end_) return false;
    const char* end = nullptr;
    const char* const begin = at_.memberName(&end);
    name = {begin, static_cast<std::size_t>(end - begin)};
    value = Value(*at_);
    ++at_;
    return true;
  }
  auto at = native<ObjectIterator>(elementAt_);
  if (!(at != native<ObjectIterator>(elementEnd_))) return false;
  name = at.key();
  value = Value(native<Element>(at.value()));
  elementAt_ = native<Element>(++at);
  return true;
}

Value::Entries::Entries(const Value& array) {
  if (!array.isArray()) return;
  if (array.read_ != nullptr) {
    at_ = array.read_->begin();
    end_ = array.read_->end();
    return;
  }
  const auto entries = get<simdjson::dom::array>(native<element>(array.element_));
  elementAt_ = native<Element>(entries.begin());
  elementEnd_ = native<Element>(entries.end());
}

bool Value::Entries::next(Value& entry) {
  if (elementAt_.document == nullptr) {
    if (at_ == end_) return false;
    entry = Value(*at_);
    ++at_;
    return true;
  }
  auto at = native<ArrayIterator>(elementAt_);
  if (!(at != native<ArrayIterator>(elementEnd_))) return false;
  entry = Value(native<Element>(*at));
  elementAt_ = native<Element>(++at);
  return true;
}

}  // namespace qn::json
