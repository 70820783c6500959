// See descriptors.h.
#include "gateway/host/descriptors.h"

#include <sys/resource.h>

#include <algorithm>

#include "gateway/log/log.h"

namespace qn {
namespace {

// Listeners, reactors, the log, the database, uploads on their way to the disk.
constexpr std::size_t kOwnDescriptors = 64;
constexpr std::size_t kAlarmFeeds = 1;  // of each device
// Connections over the limit are told so, on descriptors of their own.
constexpr std::size_t kRefusedPart = 8;

std::size_t descriptorLimit() {
  rlimit limit{};
  return getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : 0;
}

}  // namespace

void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

HttpOptions withinDescriptors(const Configuration& configuration) {
  HttpOptions options = configuration.http;
  const std::size_t limit = descriptorLimit();
  const std::size_t ofDevice = configuration.bus.deviceConnections + kAlarmFeeds;
  const std::size_t reserve = kOwnDescriptors + ofDevice * configuration.devices.size();
  // A limit that is too low for everything is shared half and half.
  const std::size_t forClients = limit - std::min(reserve, limit / 2);
  const std::size_t most = std::max<std::size_t>(forClients - forClients / kRefusedPart, 1);
  if (options.connections <= most) return options;
  logWarn(
      "http: at most {} connections instead of {}: of {} descriptors {} are kept for devices "
      "and files",
      most, options.connections, limit, limit - forClients);
  options.connections = most;
  return options;
}

}  // namespace qn
