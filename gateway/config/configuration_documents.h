// The configuration file and those that it includes, as TOML. Used by configuration_reader.
#pragma once

#include <toml++/toml.h>

#include <string>
#include <string_view>
#include <vector>

#include "gateway/config/configuration_file.h"
#include "gateway/config/toml_table.h"

namespace qn {

// The place of a key's value, or of the table when the key is not there.
Place placeOfKey(const toml::table& table, const Place& at, const char* key);

struct ConfigurationDocuments {
  static constexpr std::string_view kInclude = "include";

  toml::table root;
  std::vector<toml::table> included = {};

  std::vector<std::string> namesOfIncluded() const;
  // Of a key of the file itself; without a line when its section is not there.
  Place placeIn(const char* section, const char* key) const;
  // Calls `add(table, place)` for each [[name]] of all files. Anything else by that name is an
  // error.
  template <class Add>
  void forEachTable(const char* name, Findings& findings, Add add) const;

 private:
  template <class Add>
  static void forEachTableOf(const toml::table& document, const char* name, Findings& findings,
                             Add add);
};

// What is wrong with the list of files, or with one that it names, is an error.
ConfigurationDocuments readDocuments(std::string_view content, const Examination& examination,
                                     Findings& findings);

template <class Add>
void ConfigurationDocuments::forEachTable(const char* name, Findings& findings, Add add) const {
  forEachTableOf(root, name, findings, add);
  for (const toml::table& document : included) forEachTableOf(document, name, findings, add);
}

template <class Add>
void ConfigurationDocuments::forEachTableOf(const toml::table& document, const char* name,
                                            Findings& findings, Add add) {
  const toml::node* const node = document.get(name);
  if (!node) return;
  const std::string expected = std::string("expected sections [[") + name + "]]";
  const toml::array* const list = node->as_array();
  if (!list) return findings.error(placeOf(node->source(), name), expected);
  for (const toml::node& entry : *list) {
    const Place at = placeOf(entry.source(), name);
    if (entry.is_table()) {
      add(*entry.as_table(), at);
    } else {
      findings.error(at, expected);
    }
  }
}

}  // namespace qn
