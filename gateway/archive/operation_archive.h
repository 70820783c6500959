// Where the rows of the operation log go after the gateway's own file: nowhere, or to a database
// that several gateways share (postgres_archive.h). Started and stopped by the host.
#pragma once

#include <cstdint>
#include <filesystem>

#include "gateway/engine/engine_state.h"

namespace qn {

// start and stop by one thread at a time.
class OperationArchive {
 public:
  virtual ~OperationArchive() = default;

  // `file` is the operation log's, or will be. Returns at once, whatever the database does.
  virtual void start(const std::filesystem::path& file) = 0;
  // What is not in the database by then is sent after the next start. Harmless when repeated.
  virtual void stop() = 0;

  struct Load {
    uint64_t sent;     // rows, since the start
    uint64_t waiting;  // rows of the file that are not in the database yet
    uint64_t lost;     // rows that the file dropped before they were sent
  };
  virtual Load load() const = 0;
  // Null where there is none.
  virtual const EngineState* engine() const = 0;
};

// Rows stay in the gateway's own file.
class OwnFileOnly final : public OperationArchive {
 public:
  void start(const std::filesystem::path&) override {}
  void stop() override {}
  Load load() const override { return {}; }
  const EngineState* engine() const override { return nullptr; }
};

}  // namespace qn
