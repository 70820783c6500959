// See engines.h.
#include "gateway/host/engines.h"

#include <unistd.h>

#include <array>
#include <chrono>
#include <optional>
#include <string>

#include "gateway/archive/postgres_archive.h"
#include "gateway/cluster/shared_feeds.h"
#include "gateway/cluster/shared_logins.h"
#include "gateway/config/redis_url.h"
#include "gateway/redis/redis_client.h"

namespace qn {
namespace {

std::string nameOf(const Configuration& configuration) {
  if (!configuration.cluster.name.empty()) return configuration.cluster.name;
  std::array<char, 256> host{};
  gethostname(host.data(), host.size() - 1);
  return host.data();
}

class ByItself final : public Cluster {
 public:
  void start() override {}
  void stop() override {}
  AwaitFunctions await() const override { return {}; }
  FeedOpener& feeds(FeedOpener& devices) override { return devices; }
  const EngineState* engine() const override { return nullptr; }
  std::optional<ClusterCounts> counts() const override { return std::nullopt; }
};

// Gateways of different databases of one server have nothing to do with each other; channels,
// unlike keys, are the server's.
std::string prefixOf(const RedisAddress& address) {
  return "qn:" + std::to_string(address.database) + ':';
}

class WithOthers final : public Cluster {
 public:
  WithOthers(const RedisAddress& address, std::chrono::seconds lease, Login& login,
             std::string_view key)
      : prefix_(prefixOf(address)),
        lease_(lease),
        redis_(address, "locks and alarms are this gateway's own, nonces of others are stale"),
        logins_(redis_, login, prefix_, key) {}

  void start() override { redis_.start(); }
  void stop() override {
    redis_.stop();
    if (feeds_) feeds_->stop();
  }
  AwaitFunctions await() const override { return {mayAwaitNonce, awaitNonce}; }
  FeedOpener& feeds(FeedOpener& devices) override {
    feeds_.emplace(redis_, devices, prefix_, logins_.self(), lease_);
    return *feeds_;
  }
  const EngineState* engine() const override { return &redis_.engine(); }
  std::optional<ClusterCounts> counts() const override {
    return ClusterCounts{redis_.dropped(), feeds_.value().counts(), logins_.counts()};
  }

 private:
  const std::string prefix_;
  const std::chrono::milliseconds lease_;
  RedisClient redis_;
  SharedLogins logins_;
  std::optional<SharedFeeds> feeds_;
};

}  // namespace

std::unique_ptr<Cluster> clusterOf(const Configuration& configuration, Login& login) {
  const auto address = parseRedisUrl(configuration.cluster.redis);
  if (!address) return std::make_unique<ByItself>();
  return std::make_unique<WithOthers>(*address, configuration.cluster.leaseTime, login,
                                      configuration.kavro.nonceKey);
}

std::unique_ptr<OperationArchive> operationArchive(const Configuration& configuration) {
  const StorageOptions& storage = configuration.storage;
  if (storage.operationLog.empty()) return std::make_unique<OwnFileOnly>();
  return std::make_unique<PostgresArchive>(
      ArchiveOptions{storage.operationLog, nameOf(configuration), storage.operationLogDays});
}

std::vector<const EngineState*> enginesOf(const OperationArchive& archive, const Cluster& cluster) {
  std::vector<const EngineState*> engines;
  if (archive.engine()) engines.push_back(archive.engine());
  if (cluster.engine()) engines.push_back(cluster.engine());
  return engines;
}

}  // namespace qn
