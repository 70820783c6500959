// Files that the configuration names because what they hold is nobody else's to read. Used by
// configuration_file.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

#include "gateway/config/findings.h"

namespace qn {

// Whether a file or folder lets everybody read it.
bool isReadableByOthers(const std::filesystem::path& file);

// At most one byte more than `most`; throws std::system_error.
std::string contentOf(const std::filesystem::path& file, std::size_t most);

class SecretFile {
 public:
  static constexpr std::size_t kMost = 4096;  // bytes of a secret

  // `name` as the configuration has it: "credential:NAME" stands in the folder that the service
  // manager names in CREDENTIALS_DIRECTORY, a relative path in `folder`.
  SecretFile(std::string_view name, const std::filesystem::path& folder);

  bool isCredential() const { return credential_; }
  // There is no service manager that would give it.
  bool isMissingCredential() const;
  const std::filesystem::path& path() const { return path_; }

  // Empty, with an error at the place, when it cannot be read.
  std::string read(const Place& place, Findings& findings, std::size_t most = kMost) const;
  // The same, for what others should not know; warns when they may read the file.
  std::string readPrivate(const Place& place, Findings& findings, std::size_t most = kMost) const;
  // Of one line, whose end is left out; private.
  std::string readLine(const Place& place, Findings& findings) const;

 private:
  bool credential_;
  std::filesystem::path path_;  // empty: there is no service manager's folder
};

}  // namespace qn
