// What the configuration file and those that it includes say, checked: their values by themselves
// and beside each other. Used by configuration_file.
#pragma once

#include <filesystem>
#include <set>
#include <vector>

#include "gateway/config/configuration_documents.h"
#include "gateway/config/key_tables.h"

namespace qn {

struct ReadDocuments {
  Configuration configuration;
  std::set<std::filesystem::path> withSecrets;  // files that hold some
  // As the files have them, before what follows from them is filled in.
  std::vector<UserEntry> users;
  std::vector<DeviceEntry> devices;
};

// What is wrong is found, and what was read then is of no use.
ReadDocuments examine(const ConfigurationDocuments& documents, const Examination& examination,
                      Findings& findings);

}  // namespace qn
