// The operation log: `<dataDir>/operation_log.db`, table operation_log, readable at any time. The
// host starts and stops it; QN_GatewayCfgBus_InsertLogInfo writes to instance().
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "gateway/metrics/counter.h"
#include "gateway/oplog/database.h"
#include "gateway/sync/mutex.h"
#include "platform/gateway_cfg_bus.h"

namespace qn {

// A database that cannot be written (locked, full, read-only) is logged and tried again, while the
// queue takes what comes until it is full. A damaged file is moved to operation_log.db.unreadable.
class OperationLog {
 public:
  static constexpr std::size_t kQueueLimit = 4096;
  static constexpr std::size_t kBatchLimit = 512;  // records in one transaction
  static constexpr std::size_t kTextLimit = 1024;  // bytes of a text; the rest is cut off

  static OperationLog& instance();

  // retryTime: between attempts to write a database that failed.
  explicit OperationLog(std::chrono::milliseconds retryTime = std::chrono::seconds(5));
  ~OperationLog();  // stops
  OperationLog(const OperationLog&) = delete;
  OperationLog& operator=(const OperationLog&) = delete;

  static std::filesystem::path fileIn(const std::filesystem::path& dataDir) {
    return dataDir / "operation_log.db";
  }

  // Makes the directory and starts the writer; at most `rows` records are kept. Throws
  // std::runtime_error, naming the directory and the reason, when it cannot be made or written to.
  // Again only after stop().
  void start(const std::filesystem::path& dataDir, std::size_t rows);

  // So many are kept from the next batch on. Any thread.
  void keep(std::size_t rows) { rows_ = rows; }

  // Takes no more records, writes those queued and ends the writer. A database that cannot be
  // written gets one last attempt, so that stop takes at most a few times kBusyTimeMs of
  // database.h. Harmless when repeated; start and stop by one thread at a time.
  void stop();

  // Any thread; waits for no disk. The record's number; 0 when the queue is full or the log is not
  // running.
  uint64_t insert(const tagLogInfo& info);
  // What the request was answered with, of which insert() gave the number; once, at any time later.
  // An answer that finds no room, or comes when the database has been opened anew, is not recorded.
  void answered(uint64_t number, int status);

  // Takes no lock.
  struct Load {
    std::size_t waiting;  // records
    uint64_t written;     // ever
    uint64_t lost;
    bool isFailing;  // the database cannot be written just now
  };
  Load load() const;

 private:
  void run();
  bool nextBatch();
  bool write();
  bool waitForRetry();
  void setAside();
  void discardAll();
  void reportFailure(const std::string& reason);
  void reportSuccess();
  void reportLost();

  // Constant while the writer runs:
  const std::chrono::milliseconds retryTime_;
  std::filesystem::path file_;
  std::thread writer_;

  // The writer's own:
  std::unique_ptr<OperationDatabase> database_;
  std::vector<OperationRecord> batch_;
  std::vector<OperationAnswer> answers_;
  std::chrono::steady_clock::time_point lossReported_;
  std::string failure_;  // the reason last logged; empty while writing succeeds

  std::atomic<std::size_t> rows_{0};
  Mutex mutex_;
  Condition wakeUp_;
  std::deque<OperationRecord> queue_ QN_GUARDED_BY(mutex_);  // of consecutive numbers
  std::vector<OperationAnswer> late_ QN_GUARDED_BY(mutex_);  // to what has left the queue
  uint64_t lastNumber_ QN_GUARDED_BY(mutex_) = 0;
  uint64_t lost_ QN_GUARDED_BY(mutex_) = 0;  // since the last report
  bool running_ QN_GUARDED_BY(mutex_) = false;

  // For load().
  std::atomic<std::size_t> waiting_{0};
  Counter written_;
  Counter lostEver_;
  std::atomic<bool> failing_{false};
};

}  // namespace qn
