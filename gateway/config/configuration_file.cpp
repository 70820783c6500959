// See configuration_file.h.
#include "gateway/config/configuration_file.h"

#include <algorithm>
#include <memory>
#include <span>
#include <system_error>
#include <type_traits>
#include <utility>

#include "gateway/config/configuration_reader.h"
#include "gateway/config/secret_file.h"
#include "gateway/config/toml_syntax.h"
#include "gateway/log/log.h"

namespace qn {
namespace {

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += (text.empty() ? "" : "\n") + line;
  return text;
}

[[noreturn]] void fail(const std::string& line) { throw ConfigurationError({line}); }

// Throws ConfigurationError with all errors; warnings are in the findings.
ReadDocuments readWhole(std::string_view content, const Examination& examination,
                        Findings& findings) {
  const ConfigurationDocuments documents = readDocuments(content, examination, findings);
  ReadDocuments result = examine(documents, examination, findings);
  if (findings.hasErrors()) throw ConfigurationError(findings.errors());
  return result;
}

std::string contentOfFile(const std::filesystem::path& file) {
  std::string content;
  try {
    content = contentOf(file, kConfigurationFileBytes);
  } catch (const std::system_error& error) {
    fail(file.string() + ": cannot be read: " + error.code().message());
  }
  if (content.size() <= kConfigurationFileBytes) return content;
  fail(file.string() + ": expected at most " + std::to_string(kConfigurationFileBytes) + " bytes");
}

// The value of a member as --print shows it.
template <class Value>
std::string printed(const Value& value) {
  if constexpr (std::is_same_v<Value, std::string>) return value;
  return tomlText(value);
}

// Collects what a key of one section has in some entries of it.
template <class S, std::size_t N>
void collect(const Key<S> (&keys)[N], std::string_view name, const auto& entries,
             std::optional<std::vector<std::string>>& values) {
  const auto key = std::ranges::find(keys, name, &Key<S>::name);
  if (key == std::end(keys) || key->traits.secret) return;
  values.emplace();
  for (const S& entry : entries) {
    std::visit([&](auto member) { values->push_back(printed(entry.*member)); }, key->member);
  }
}

template <class S, std::size_t N>
ListedEntries listed(const Key<S> (&keys)[N], const std::vector<S>& entries) {
  ListedEntries result;
  result.rows.resize(entries.size());
  const S standard{};
  for (const Key<S>& key : keys) {
    if (key.traits.secret) continue;
    result.keys.emplace_back(key.name);
    std::visit(
        [&](auto member) {
          result.standard.push_back(tomlText(standard.*member));
          for (std::size_t i = 0; i < entries.size(); ++i) {
            result.rows[i].push_back(tomlText(entries[i].*member));
          }
        },
        key.member);
  }
  return result;
}

}  // namespace

ConfigurationError::ConfigurationError(std::vector<std::string> lines)
    : std::runtime_error(joined(lines)), lines_(std::move(lines)) {}

ReadConfiguration examineConfiguration(const std::filesystem::path& file,
                                       const Examination& examination) {
  Findings findings(file.string());
  ReadDocuments found = readWhole(contentOfFile(file), examination, findings);
  for (const auto& each : found.withSecrets) {
    if (!isReadableByOthers(each)) continue;
    const Place place{0, 0, {}, std::make_shared<const std::string>(each.string())};
    findings.warning(place,
                     "everybody may read it, and it holds passwords: chmod o-rwx " + each.string());
  }
  return {std::move(found.configuration), findings.warnings()};
}

std::vector<std::filesystem::path> includedFiles(const std::filesystem::path& file) {
  Findings findings(file.string());
  const ConfigurationDocuments documents{parseToml(contentOfFile(file), findings)};
  if (findings.hasErrors()) throw ConfigurationError(findings.errors());
  std::vector<std::filesystem::path> files;
  for (const std::string& name : documents.namesOfIncluded()) {
    files.push_back(file.parent_path() / name);
  }
  return files;
}

Configuration readConfiguration(const std::filesystem::path& file) {
  ReadConfiguration read = examineConfiguration(file);
  for (const std::string& line : read.warnings) logWarn("{}", line);
  return std::move(read.configuration);
}

Configuration readConfiguration(std::string_view content, const std::string& name) {
  Findings findings(name);
  ReadDocuments found = readWhole(content, {}, findings);
  for (const std::string& line : findings.warnings()) logWarn("{}", line);
  return std::move(found.configuration);
}

Configuration parseConfiguration(std::string_view content, const std::string& name) {
  Findings findings(name);
  return readWhole(content, {}, findings).configuration;
}

std::optional<std::vector<std::string>> configuredValues(const std::filesystem::path& file,
                                                         std::string_view key) {
  Findings findings(file.string());
  const ReadDocuments found = readWhole(contentOfFile(file), {}, findings);
  const Configuration& read = found.configuration;
  const std::size_t dot = std::min(key.find('.'), key.size());
  const std::string_view section = key.substr(0, dot);
  const std::string_view name = key.substr(std::min(dot + 1, key.size()));
  std::optional<std::vector<std::string>> values;
  collect(kTopKeys, key, std::span(&read, 1), values);
  forEachSection([&](std::string_view each, auto, const auto& keys, auto member) {
    if (each == section) collect(keys, name, std::span(&(read.*member), 1), values);
  });
  if (section == "users") collect(kUserKeys, name, found.users, values);
  if (section == "devices") collect(kDeviceKeys, name, found.devices, values);
  if (section == "certificates") {
    collect(kCertificateKeys, name, read.https.certificates, values);
  }
  return values;
}

ListedEntries listedEntries(const std::filesystem::path& file, std::string_view list) {
  Findings findings(file.string());
  const ReadDocuments found = readWhole(contentOfFile(file), {nullptr, true}, findings);
  return list == "users" ? listed(kUserKeys, found.users) : listed(kDeviceKeys, found.devices);
}

}  // namespace qn
