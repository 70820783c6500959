// What a configuration in force and the one that follows it have of each other. Called by the host
// at a reload, and by the commands that change users and devices.
#pragma once

#include <string>
#include <vector>

#include "gateway/config/configuration.h"

namespace qn {

// Gives `next` the values of `inForce` for the keys that need a restart; returns the names of those
// that it has changed.
std::vector<std::string> keepUntilRestart(const Configuration& inForce, Configuration& next);

// The names of the keys, and of the lists, whose values differ.
std::vector<std::string> changedKeys(const Configuration& before, const Configuration& after);

// Throws ConfigurationError when a running gateway should not change to `next`, which `file` holds:
// it would take the administrator away, as an empty file does, so whoever is writing it has not
// finished and nobody could log in; or it has a new certificate that has expired.
void checkReload(const Configuration& inForce, const Configuration& next, const std::string& file);

}  // namespace qn
