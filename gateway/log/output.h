// Where the log's lines go: standard error, or a file. At first whoever logs writes the line; once
// there is a thread for it, lines wait in memory, so that a full pipe or a slow disk stalls nobody.
// Called by log.cpp for every line, and by the host.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "gateway/sync/mutex.h"

namespace qn {

// Any thread.
class LogOutput {
 public:
  // That wait, besides as many that are being written; more lines are dropped.
  static constexpr std::size_t kWaitingBytes = 4 * 1024 * 1024;
  static constexpr std::chrono::seconds kFlushTime{1};

  static LogOutput& instance();

  // Writes to the file from now on; to standard error when the name is empty. Throws
  // std::system_error when it cannot be opened; nothing has changed then.
  void open(const std::string& file);
  // Opens the same name anew, for who moves the file away; as open().
  void reopen();

  // Does not block while there is a thread. The line brings its newline.
  void write(std::string_view line);
  // Lines for which there was no room or no disk, since the start.
  uint64_t dropped() const { return dropped_.load(std::memory_order_relaxed); }

  void start();
  // Waits until all lines are written, or kFlushTime; what is left then is lost.
  void stop();

 private:
  class File;
  enum class State { Direct, Threaded, Stopping, Ended };

  LogOutput();
  void run();
  void waitForLines() QN_REQUIRES(mutex_);
  void reportDropped();

  Mutex mutex_;
  Condition changed_;
  State state_ QN_GUARDED_BY(mutex_) = State::Direct;
  bool asleep_ QN_GUARDED_BY(mutex_) = false;  // the thread
  std::string waiting_ QN_GUARDED_BY(mutex_);
  std::string name_ QN_GUARDED_BY(mutex_);
  std::shared_ptr<const File> file_ QN_GUARDED_BY(mutex_);
  std::atomic<uint64_t> dropped_{0};
  uint64_t reported_ = 0;  // the thread's
};

}  // namespace qn
