// What gateways share with each other and what each has for itself: the one place that chooses, by
// the configuration. Used by gateway.cpp.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "gateway/alarmbus/device_feed.h"
#include "gateway/archive/operation_archive.h"
#include "gateway/config/configuration.h"
#include "gateway/engine/engine_state.h"
#include "gateway/http/service_core.h"
#include "gateway/login/login.h"
#include "gateway/metrics/counts.h"

namespace qn {

// The other gateways. start and stop once, by one thread.
class Cluster {
 public:
  virtual ~Cluster() = default;
  virtual void start() = 0;
  // No request waits for it, nor is it told anything, afterwards.
  virtual void stop() = 0;
  // Has requests wait for their nonces; nothing where none has to.
  virtual AwaitFunctions await() const = 0;
  // Where alarms come from: from `devices`, or from whichever gateway has the device's. Once,
  // before the start; `devices` outlives the cluster's stop.
  virtual FeedOpener& feeds(FeedOpener& devices) = 0;
  // Null where there is none.
  virtual const EngineState* engine() const = 0;
  // Nothing where nothing goes to others; of the feeds, which are there.
  virtual std::optional<ClusterCounts> counts() const = 0;
};

// By itself, or with others as [cluster] says.
std::unique_ptr<Cluster> clusterOf(const Configuration& configuration, Login& login);

// Throws std::exception with a text for the operator.
std::unique_ptr<OperationArchive> operationArchive(const Configuration& configuration);

// Those that are in use.
std::vector<const EngineState*> enginesOf(const OperationArchive& archive, const Cluster& cluster);

}  // namespace qn
