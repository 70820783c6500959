// See toml_table.h.
#include "gateway/config/toml_table.h"

#include <algorithm>
#include <sstream>

#include "text/hex.h"

namespace qn {
namespace {

constexpr std::size_t kShownBytes = 64;  // of a value

constexpr std::pair<PictureOptions::WhenFull, std::string_view> kWhenFullNames[] = {
    {PictureOptions::WhenFull::Refuse, "refuse"},
    {PictureOptions::WhenFull::DropOldest, "drop_oldest"}};

constexpr std::pair<DeviceAuth, std::string_view> kDeviceAuthNames[] = {
    {DeviceAuth::Digest, "digest"}, {DeviceAuth::Basic, "basic"}, {DeviceAuth::Any, "any"}};

constexpr std::pair<ClientCertificates, std::string_view> kClientCertificateNames[] = {
    {ClientCertificates::None, "none"},
    {ClientCertificates::Optional, "optional"},
    {ClientCertificates::Required, "required"}};

template <class Names, class Value>
std::string nameOf(const Names& names, Value value) {
  const auto entry = std::ranges::find(names, value, [](const auto& each) { return each.first; });
  return tomlText(std::string(entry->second));
}

template <class Names, class Value>
void byName(const Names& names, std::string_view name, Value& value) {
  const auto entry = std::ranges::find(names, name, [](const auto& each) { return each.second; });
  if (entry != std::end(names)) value = entry->first;
}

void appendEscaped(std::string& out, char c) {
  if (c == '"' || c == '\\') {
    out += '\\';
    out += c;
  } else if (uint8_t(c) < ' ' || c == 0x7f) {
    out += "\\u00" + text::hexOf(std::span(reinterpret_cast<const uint8_t*>(&c), 1));
  } else {
    out += c;
  }
}

}  // namespace

std::string tomlText(bool value) { return value ? "true" : "false"; }
std::string tomlText(int64_t value) { return std::to_string(value); }
std::string tomlText(const std::string& value) {
  std::string text = "\"";
  for (const char c : value) appendEscaped(text, c);
  return text + '"';
}
std::string tomlText(const std::vector<std::string>& value) {
  std::string text;
  for (const std::string& each : value) text += (text.empty() ? "" : ", ") + tomlText(each);
  return '[' + text + ']';
}
std::string tomlText(DigestAlgorithm value) { return tomlText(std::string(algorithmName(value))); }
std::string tomlText(PictureOptions::WhenFull value) { return nameOf(kWhenFullNames, value); }
std::string tomlText(DeviceAuth value) { return nameOf(kDeviceAuthNames, value); }
std::string tomlText(ClientCertificates value) { return nameOf(kClientCertificateNames, value); }

std::string shownValue(const toml::node& node) {
  if (node.is_table()) return "a table";
  if (node.is_array()) return "a list";
  if (const auto* const text = node.as_string()) {
    const std::string& value = text->get();
    if (value.size() > kShownBytes) return "a text of " + std::to_string(value.size()) + " bytes";
    // What stands between a URL's scheme and "@" may be a password.
    return value.find('@') == value.npos ? tomlText(value) : "a text with \"@\"";
  }
  std::ostringstream out;
  node.visit([&](const auto& value) { out << value; });
  return out.str();
}

void ValueReader::fail(const toml::node& from, std::string what) const {
  if (!secret) what += ", not " + shownValue(from);
  const auto* const text = from.as_string();
  if (text && rule && !secret) what += didYouMean(text->get(), rule->choices);
  findings.error(placeOf(from.source(), place.key), std::move(what));
}

bool ValueReader::isNumber() const {
  const auto* const value = node.as_integer();
  if (value && value->get() >= range.min && value->get() <= range.max) return true;
  fail(node, "expected an integer from " + std::to_string(range.min) + " to " +
                 std::to_string(range.max));
  return false;
}

bool ValueReader::isText(const toml::node& from) const {
  const auto* const value = from.as_string();
  if (value && (!rule || rule->holds(value->get()))) return true;
  fail(from, std::string("expected a string: ") + (rule ? rule->expected : "any"));
  return false;
}

void ValueReader::into(bool& target) const {
  const auto* const value = node.as_boolean();
  if (!value) return fail(node, "expected true or false");
  target = value->get();
}

void ValueReader::into(std::string& target) const {
  if (isText(node)) target = node.as_string()->get();
}

void ValueReader::into(std::chrono::seconds& target) const {
  if (isNumber()) target = std::chrono::seconds(node.as_integer()->get());
}

void ValueReader::into(std::vector<std::string>& target) const {
  const toml::array* const list = node.as_array();
  if (!list) return fail(node, std::string("expected a list of strings, each ") + rule->expected);
  target.clear();
  for (const toml::node& entry : *list) {
    if (isText(entry)) target.push_back(entry.as_string()->get());
  }
}

void ValueReader::into(DigestAlgorithm& target) const {
  if (!isText(node)) return;
  const bool sha256 = node.as_string()->get() == algorithmName(DigestAlgorithm::SHA256);
  target = sha256 ? DigestAlgorithm::SHA256 : DigestAlgorithm::MD5;
}

void ValueReader::into(PictureOptions::WhenFull& target) const {
  if (isText(node)) byName(kWhenFullNames, node.as_string()->get(), target);
}

void ValueReader::into(DeviceAuth& target) const {
  if (isText(node)) byName(kDeviceAuthNames, node.as_string()->get(), target);
}

void ValueReader::into(ClientCertificates& target) const {
  if (isText(node)) byName(kClientCertificateNames, node.as_string()->get(), target);
}

}  // namespace qn
