// The descriptors of the process: as many as the system allows, and enough of them kept for devices
// and files. Used by the host.
#pragma once

#include <cstddef>

#include "gateway/config/configuration.h"

namespace qn {

// One connection is one descriptor, so as many as the system allows. At start.
void raiseDescriptorLimit();

// The options with no more connections than leave room for what else needs descriptors, so that
// strangers cannot take those; lowering them is logged. At start and when devices are added.
HttpOptions withinDescriptors(const Configuration& configuration);

}  // namespace qn
