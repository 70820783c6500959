// The operation log's rows of all gateways in one PostgreSQL database: each gateway's own SQLite
// file is the outbox, a thread sends what stands in it. Made by the host when [storage]
// operation_log names a database.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "gateway/archive/operation_archive.h"

namespace qn {

struct ArchiveOptions {
  std::string uri;      // postgresql://...
  std::string gateway;  // stands with each row
  std::size_t days;     // so many whole days are kept
};

// A row is in the database once, however often it was sent. Rows of one gateway come in their
// order, a second or two after they were written, or when their request was answered. While the
// database is away the file keeps them, as many as it keeps rows.
class PostgresArchive final : public OperationArchive {
 public:
  static constexpr std::chrono::milliseconds kPollTime{500};  // for new rows in the file
  static constexpr std::chrono::seconds kPingTime{5};         // without rows
  static constexpr std::chrono::hours kRetentionTime{1};
  static constexpr std::chrono::seconds kLongestRetry{5};
  static constexpr std::chrono::seconds kStopTime{2};  // then a look-up of a name is left alone

  // Throws std::invalid_argument for a URI that cannot be read. `firstRetry` doubles with each
  // failure, up to kLongestRetry.
  explicit PostgresArchive(ArchiveOptions options,
                           std::chrono::milliseconds firstRetry = std::chrono::seconds(1));
  ~PostgresArchive() override;

  // Once.
  void start(const std::filesystem::path& file) override;
  void stop() override;
  Load load() const override;
  const EngineState* engine() const override;

 private:
  class Sender;

  const std::shared_ptr<Sender> sender_;  // shared with its thread
  std::thread thread_;
};

}  // namespace qn
