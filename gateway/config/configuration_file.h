// Reads the configuration file and those that it includes. Called by the host at start, on SIGHUP,
// for --check-config and for
// --print.
#pragma once

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "gateway/config/configuration.h"

namespace qn {

// Every error of the file, a line each: "FILE:LINE:COLUMN: KEY: expected ...", as far as they are
// known.
class ConfigurationError : public std::runtime_error {
 public:
  explicit ConfigurationError(std::vector<std::string> lines);

  const std::vector<std::string>& lines() const { return lines_; }

 private:
  std::vector<std::string> lines_;
};

// A larger file is refused.
inline constexpr std::size_t kConfigurationFileBytes = 4 * 1024 * 1024;

// More are refused.
inline constexpr std::size_t kIncludedFiles = 16;

// What an included file is going to hold, in place of what stands on the disk.
struct IncludedText {
  std::filesystem::path file;
  std::string content;
};

struct Examination {
  const IncludedText* instead = nullptr;
  // Credentials of the service manager cannot be looked at: each is a warning, and empty.
  bool outsideOfService = false;
};

struct ReadConfiguration {
  Configuration configuration;
  std::vector<std::string> warnings;  // what is probably not meant so, as ConfigurationError has it
};

// Everything is checked, the files that it includes as well: throws ConfigurationError with all
// faults.
ReadConfiguration examineConfiguration(const std::filesystem::path& file,
                                       const Examination& examination = {});

// Of the file's `include`, with their paths, whether they can be read or not. Throws
// ConfigurationError when the file itself cannot be read.
std::vector<std::filesystem::path> includedFiles(const std::filesystem::path& file);

// The same, where the warnings go to the log.
Configuration readConfiguration(const std::filesystem::path& file);

// The same for a file's content, warnings included.
Configuration readConfiguration(std::string_view content, const std::string& name);

// The same, without warnings; `name` stands for the file in errors, and names the folder that
// relative paths begin at.
Configuration parseConfiguration(std::string_view content, const std::string& name);

// The values of a key as the file puts them in force, defaults included: text as it stands, all
// else as TOML. One for each user or device for "users.KEY" and "devices.KEY". Nothing for a key
// that does not exist or whose value is a secret. Throws ConfigurationError.
std::optional<std::vector<std::string>> configuredValues(const std::filesystem::path& file,
                                                         std::string_view key);

// The users or devices as they are put in force, for an operator: their keys but the secret ones.
struct ListedEntries {
  std::vector<std::string> keys;
  std::vector<std::string> standard;           // what each key has where nothing is said, as TOML
  std::vector<std::vector<std::string>> rows;  // an entry's values, as TOML
};
// `list`: "users" or "devices". Throws ConfigurationError.
ListedEntries listedEntries(const std::filesystem::path& file, std::string_view list);

}  // namespace qn
