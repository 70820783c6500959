#include "gateway/devicebus/shard.h"

#include <algorithm>
#include <deque>
#include <exception>
#include <limits>
#include <utility>

#include "gateway/log/log.h"

namespace qn::devicebus {
namespace {

Lane::Limits laneLimits(const BusOptions& options, std::size_t shards) {
  constexpr std::size_t kLargest = std::numeric_limits<int>::max();  // what a callback can be told
  return {std::max<std::size_t>(options.deviceConnections / shards, 1),
          std::min(options.replyBytes, kLargest)};
}

}  // namespace

Shard::Shard(boost::asio::io_context& reactor, const Answers& answers, DeviceDirectory& directory,
             std::size_t shards)
    : reactor_(reactor),
      answers_(answers),
      directory_(directory),
      shards_(shards),
      timer_(reactor) {}

std::shared_ptr<Device> Shard::device(std::string_view index) {
  Lane* const found = lane(index);
  return found ? found->sharedDevice() : nullptr;
}

Lane* Shard::lane(std::string_view index) {
  followConfiguration();
  const auto known = lanes_.find(index);
  if (known != lanes_.end()) return known->second.get();
  const DeviceConfig* const config = configuration_->findDevice(index);
  if (!config) return nullptr;
  auto made = std::make_unique<Lane>(reactor_, answers_, directory_.find(*config), limits_);
  return lanes_.emplace(index, std::move(made)).first->second.get();
}

void Shard::followConfiguration() {
  const auto& current = configuration();
  if (current == configuration_) return;
  configuration_ = current;
  limits_ = laneLimits(current->bus, shards_);
  directory_.prune(*current);
  std::deque<RequestPtr> waiting;
  for (auto next = lanes_.begin(); next != lanes_.end();) {
    const auto entry = next++;
    Lane& lane = *entry->second;
    const DeviceConfig* const config = current->findDevice(entry->first);
    const bool same = config && config->sameServer(lane.device().config);
    if (same && limits_ == lane.limits()) continue;
    std::ranges::move(lane.retire(), std::back_inserter(waiting));
    retired_.push_back(std::move(entry->second));
    lanes_.erase(entry);
  }
  for (RequestPtr& request : waiting) accept(std::move(request));
}

void Shard::accept(RequestPtr request) {
  if (stopped_) return answers_.giveError(reactor_, std::move(request), ERROR_GATEWAY_STOPPING);
  Lane* const to = lane(request->device->config.index);
  if (!to) return answers_.giveError(reactor_, std::move(request), ERROR_DEVICE_UNREACHABLE);
  to->submit(std::move(request));
  if (period_ != kSweepPeriod) watch(kSweepPeriod);
}

void Shard::acceptPosted(RequestPtr request) noexcept {
  try {
    accept(std::move(request));
  } catch (const std::exception& exception) {
    logError("device bus: {}", exception.what());
  }
}

void Shard::watch(std::chrono::milliseconds period) {
  period_ = period;
  timer_.expires_after(period);
  timer_.async_wait([this, starts = timerStarts_,
                     start = ++*timerStarts_](const boost::system::error_code& error) {
    if (!error && start == *starts) sweep();
  });
}

void Shard::sweep() noexcept {
  period_ = {};
  try {
    followConfiguration();
    sweepLanes();
  } catch (const std::exception& exception) {
    logError("device bus: {}", exception.what());
  }
  const auto any = [this](auto property) {
    return std::ranges::any_of(retired_, [&](auto& lane) { return property(*lane); }) ||
           std::ranges::any_of(lanes_, [&](auto& entry) { return property(*entry.second); });
  };
  if (any([](const Lane& lane) { return lane.isPending(); })) return watch(kSweepPeriod);
  if (any([](const Lane& lane) { return !lane.isEmpty(); })) watch(kIdleSweepPeriod);
}

void Shard::sweepLanes() {
  const auto now = Lane::Clock::now();
  for (const auto& [index, lane] : lanes_) lane->sweep(now);
  for (const auto& lane : retired_) lane->sweep(now);
  std::erase_if(retired_, [](const auto& lane) { return lane->isEmpty(); });
}

void Shard::shutDown() {
  stopped_ = true;
  ++*timerStarts_;
  timer_.cancel();
  for (const auto& [index, lane] : lanes_) lane->endAll(ERROR_GATEWAY_STOPPING);
  for (const auto& lane : retired_) lane->endAll(ERROR_GATEWAY_STOPPING);
  lanes_.clear();
  retired_.clear();
}

}  // namespace qn::devicebus
