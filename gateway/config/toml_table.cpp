#include "gateway/config/toml_table.h"

#include "gateway/config/configuration_file.h"

namespace qn {

void Place::fail(const std::string& what) const {
  std::string text = file;
  if (line != 0) text += ':' + std::to_string(line);
  if (!key.empty()) text += ": " + key;
  throw ConfigurationError(text + ": " + what);
}

int64_t ValueReader::integer() const {
  const auto* const value = node.as_integer();
  if (!value || value->get() < range.min || value->get() > range.max) {
    place.fail("expected an integer from " + std::to_string(range.min) + " to " +
               std::to_string(range.max));
  }
  return value->get();
}

std::string ValueReader::text(const toml::node& from) const {
  const auto* const value = from.as_string();
  if (!value || (rule && !rule->holds(value->get()))) {
    place.fail(std::string("expected a string: ") + (rule ? rule->expected : "any"));
  }
  return value->get();
}

void ValueReader::into(bool& target) const {
  const auto* const value = node.as_boolean();
  if (!value) place.fail("expected true or false");
  target = value->get();
}

void ValueReader::into(std::vector<std::string>& target) const {
  const toml::array* const list = node.as_array();
  if (!list) place.fail(std::string("expected a list of strings, each ") + rule->expected);
  target.clear();
  for (const toml::node& entry : *list) target.push_back(text(entry));
}

void ValueReader::into(DigestAlgorithm& target) const {
  const bool sha256 = text(node) == algorithmName(DigestAlgorithm::SHA256);
  target = sha256 ? DigestAlgorithm::SHA256 : DigestAlgorithm::MD5;
}

void ValueReader::into(PictureOptions::WhenFull& target) const {
  using WhenFull = PictureOptions::WhenFull;
  target = text(node) == "refuse" ? WhenFull::Refuse : WhenFull::DropOldest;
}

void ValueReader::into(DeviceAuth& target) const {
  const std::string value = text(node);
  target = value == "digest"  ? DeviceAuth::Digest
           : value == "basic" ? DeviceAuth::Basic
                              : DeviceAuth::Any;
}

}  // namespace qn
