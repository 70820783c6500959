// The protocol module's three functions, as a rule of a loaded library. Used by the host only.
#pragma once

#include <filesystem>

#include "include/embedded_gateway.h"

namespace qn {

// The functions that the program has given; without any, those of the file, all three bound here,
// so that a library that lacks one is refused as a whole. Throws std::runtime_error with the
// loader's reason, std::logic_error when only some were given. The library is never unloaded:
// replies may still be under way through its code when the process ends.
GatewayParts::Module protocolModule(const GatewayParts& parts);

}  // namespace qn
