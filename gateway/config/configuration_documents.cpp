// See configuration_documents.h.
#include "gateway/config/configuration_documents.h"

#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>

#include "gateway/config/secret_file.h"
#include "gateway/config/toml_syntax.h"

namespace qn {
namespace {

// Empty, with an error at the place, when it cannot be read.
std::string contentOfIncluded(const std::filesystem::path& file, const Place& place,
                              Findings& findings) {
  std::error_code ignored;
  const auto facts = status(file, ignored);
  if (exists(facts) && !is_regular_file(facts)) {  // a pipe would block, a device would not end
    findings.error(place, file.string() + ": expected a file");
    return {};
  }
  try {
    std::string content = contentOf(file, kConfigurationFileBytes);
    if (content.size() <= kConfigurationFileBytes) return content;
    findings.error(place, file.string() + ": expected at most " +
                              std::to_string(kConfigurationFileBytes) + " bytes");
  } catch (const std::system_error& error) {
    findings.error(place, file.string() + " cannot be read: " + error.code().message());
  }
  return {};
}

}  // namespace

Place placeOfKey(const toml::table& table, const Place& at, const char* key) {
  const toml::node* const node = table.get(key);
  std::string name = at.key + '.' + key;
  return node ? placeOf(node->source(), std::move(name))
              : Place{at.line, at.column, std::move(name), at.file};
}

std::vector<std::string> ConfigurationDocuments::namesOfIncluded() const {
  std::vector<std::string> names;
  const toml::array* const list = root.get_as<toml::array>(kInclude);
  if (!list) return names;
  for (const toml::node& entry : *list) {
    if (const auto* const name = entry.as_string()) names.push_back(name->get());
  }
  return names;
}

Place ConfigurationDocuments::placeIn(const char* section, const char* key) const {
  const toml::node* const node = root.get(section);
  const Place at{0, 0, section};
  return node && node->is_table() ? placeOfKey(*node->as_table(), at, key)
                                  : Place{0, 0, at.key + '.' + key};
}

ConfigurationDocuments readDocuments(std::string_view content, const Examination& examination,
                                     Findings& findings) {
  ConfigurationDocuments documents{parseToml(content, findings)};
  const toml::node* const node = documents.root.get(ConfigurationDocuments::kInclude);
  if (!node) return documents;
  const Place place = placeOf(node->source(), std::string(ConfigurationDocuments::kInclude));
  std::vector<std::string> names;
  const ValueReader reader{*node, place, {}, &kPathRule, false, findings};
  reader.into(names);
  if (names.size() > kIncludedFiles) {
    findings.error(place, "expected at most " + std::to_string(kIncludedFiles) + " files");
    return documents;
  }
  const auto folder = std::filesystem::path(findings.file()).parent_path();
  for (const std::string& name : names) {
    const std::filesystem::path file = folder / name;
    const IncludedText* const given = examination.instead;
    const std::string text =
        given && given->file == file ? given->content : contentOfIncluded(file, place, findings);
    documents.included.push_back(
        parseToml(text, findings, std::make_shared<const std::string>(file.string())));
  }
  return documents;
}

}  // namespace qn
