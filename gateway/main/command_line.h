// The command line of qn-gateway: what was asked for, and all of it that needs no gateway to run.
// Used by main.cpp.
#pragma once

#include <filesystem>
#include <optional>

#include "include/embedded_gateway.h"

namespace qn {

// What the process ends with.
enum class ExitStatus : int {
  Good = 0,
  BadConfiguration = 1,
  BadUsage = 2,
  NotDone = 3,  // the gateway did not start, or what a command asked for was not done
};

struct Arguments {
  std::filesystem::path config;
  std::filesystem::path module = GatewayParts::installedModule();
};

// Does what was asked for, and says how that ended; nothing when the gateway is to run. Throws
// ConfigurationError.
std::optional<ExitStatus> readCommandLine(int argc, char** argv, Arguments& arguments);

}  // namespace qn
