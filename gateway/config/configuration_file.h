// Reads the configuration file. Called by the host at start, on SIGHUP and for --check-config.
#pragma once

#include <filesystem>
#include <stdexcept>

#include "gateway/config/configuration.h"

namespace qn {

// The text is "FILE:LINE: KEY: expected ...", as far as line and key are known.
class ConfigurationError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A larger file is refused.
inline constexpr std::size_t kConfigurationFileBytes = 4 * 1024 * 1024;

// Everything is checked: throws ConfigurationError at the first fault. What may be meant so is only
// logged as a warning: a user whose device is not configured.
Configuration readConfiguration(const std::filesystem::path& file);

// The same for a file's content; `name` stands for the file in errors.
Configuration parseConfiguration(std::string_view content, const std::string& name);

// Throws ConfigurationError when a running gateway should not change to `next`, which `file` holds:
// it would take the administrator away, as an empty file does. Whoever is writing it has not
// finished, and nobody could log in.
void checkReload(const Configuration& inForce, const Configuration& next, const std::string& file);

}  // namespace qn
