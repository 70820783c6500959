// GatewaySettings of include/embedded_gateway.h: values become the text that a file would have, so
// that one reader checks both.
#include <algorithm>
#include <stdexcept>

#include "gateway/config/toml_table.h"
#include "include/embedded_gateway.h"

namespace qn {
namespace {

bool isName(std::string_view text) {
  return !text.empty() && std::ranges::all_of(text, [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
  });
}

std::string checkedName(std::string_view name) {
  if (isName(name)) return std::string(name);
  throw std::invalid_argument("\"" + std::string(name) + "\" is no name of a setting");
}

void refuseFile(const std::filesystem::path& file) {
  if (file.empty()) return;
  throw std::invalid_argument("the settings of " + file.string() + " are changed in the file");
}

void append(std::string& text, const std::string& head,
            const std::map<std::string, GatewaySettings::Value>& keys) {
  text.append(head) += '\n';
  for (const auto& [name, value] : keys) {
    const std::string shown = std::visit([](const auto& each) { return tomlText(each); }, value);
    text.append(name).append(" = ").append(shown) += '\n';
  }
}

}  // namespace

GatewaySettings GatewaySettings::fromFile(std::filesystem::path file) {
  if (file.empty()) throw std::invalid_argument("settings of a file without a name");
  GatewaySettings settings;
  settings.file_ = std::move(file);
  return settings;
}

GatewaySettings& GatewaySettings::set(std::string_view key, Value value) {
  refuseFile(file_);
  const std::size_t dot = std::min(key.find('.'), key.size());
  const std::string section = checkedName(key.substr(0, dot));
  const std::string name = checkedName(key.substr(std::min(dot + 1, key.size())));
  sections_[section].insert_or_assign(name, std::move(value));
  return *this;
}

GatewaySettings& GatewaySettings::add(std::string_view list, Entry keys) {
  refuseFile(file_);
  Keys entry;
  for (const auto& [name, value] : keys) entry.insert_or_assign(checkedName(name), value);
  lists_.emplace_back(checkedName(list), std::move(entry));
  return *this;
}

std::string GatewaySettings::toml() const {
  std::string text;
  for (const auto& [name, keys] : sections_) append(text, '[' + name + ']', keys);
  for (const auto& [name, keys] : lists_) append(text, "[[" + name + "]]", keys);
  return text;
}

}  // namespace qn
