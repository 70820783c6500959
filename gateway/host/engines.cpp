// See engines.h.
#include "gateway/host/engines.h"

#include <unistd.h>

#include <array>
#include <string>

#include "gateway/archive/postgres_archive.h"

namespace qn {
namespace {

std::string nameOf(const Configuration& configuration) {
  if (!configuration.cluster.name.empty()) return configuration.cluster.name;
  std::array<char, 256> host{};
  gethostname(host.data(), host.size() - 1);
  return host.data();
}

}  // namespace

std::unique_ptr<OperationArchive> operationArchive(const Configuration& configuration) {
  const StorageOptions& storage = configuration.storage;
  if (storage.operationLog.empty()) return std::make_unique<OwnFileOnly>();
  return std::make_unique<PostgresArchive>(
      ArchiveOptions{storage.operationLog, nameOf(configuration), storage.operationLogDays});
}

std::vector<const EngineState*> enginesOf(const OperationArchive& archive) {
  std::vector<const EngineState*> engines;
  if (archive.engine()) engines.push_back(archive.engine());
  return engines;
}

}  // namespace qn
