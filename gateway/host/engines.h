// What gateways share with each other and what each has for itself: the one place that chooses, by
// the configuration. Used by gateway.cpp.
#pragma once

#include <memory>
#include <vector>

#include "gateway/archive/operation_archive.h"
#include "gateway/config/configuration.h"
#include "gateway/engine/engine_state.h"

namespace qn {

// Throws std::exception with a text for the operator.
std::unique_ptr<OperationArchive> operationArchive(const Configuration& configuration);

// Those that are in use.
std::vector<const EngineState*> enginesOf(const OperationArchive& archive);

}  // namespace qn
