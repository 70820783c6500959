// The operation log's SQLite file as the outbox of rows for another database: which of them are
// sent, and whose answer came afterwards. Used by the thread of postgres_archive.cpp, beside the
// writer of gateway/oplog, which knows nothing of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace qn {

struct OutboxRow {
  int64_t sequence;
  int64_t time;        // seconds since the epoch
  std::string status;  // empty: not answered yet
  // As they were recorded: any bytes.
  std::string isoTime, user, clientIp, operation, category, result;
};

struct OutboxStatus {
  int64_t sequence;
  int64_t time;
  std::string status;
};

class OutboxError : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};

// A connection for one thread. Holds the file's write lock for the time of one read of a batch;
// waits for that of others at most kBusyTimeMs. Every operation throws OutboxError, among other
// things while the writer has not made the file yet.
class Outbox {
 public:
  static constexpr int kBusyTimeMs = 500;
  static constexpr std::size_t kBatchRows = 5000;
  static constexpr std::size_t kBatchBytes = 4 * 1024 * 1024;  // of texts, give or take a row
  // A row waits so long for its answer; then it goes without, and the status follows.
  static constexpr int kAnswerSeconds = 2;

  explicit Outbox(const std::filesystem::path& file);

  // A random name that the file got when it became an outbox. Sequences are the file's row ids: two
  // rows of one instance never have the same one.
  const std::string& instance() const { return instance_; }

  struct Batch {
    std::vector<OutboxRow> rows;  // in the order of their sequences; none: nothing is due
    uint64_t dropped = 0;         // rows before them that the file has no more
  };
  // The oldest rows that were not sent, until one whose answer may still come. The same again until
  // they are sent.
  Batch claim();
  void sent(const Batch& batch);

  // Of rows that were sent without; at most kBatchRows.
  std::vector<OutboxStatus> lateStatuses();
  void sent(const std::vector<OutboxStatus>& statuses);

  uint64_t waiting();

 private:
  struct Close {
    void operator()(sqlite3* connection) const;
  };
  class Query;

  void execute(const char* sql);
  void check(int result);

  std::unique_ptr<sqlite3, Close> connection_;
  std::string instance_;
};

}  // namespace qn
