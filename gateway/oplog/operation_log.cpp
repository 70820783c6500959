// See operation_log.h and platform/gateway_cfg_bus.h.
#include "gateway/oplog/operation_log.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "gateway/auth/login_request.h"
#include "gateway/log/log.h"
#include "gateway/oplog/database.h"

namespace qn {
namespace {

constexpr std::chrono::seconds kLossReportTime{1};  // at most one line in it

void requireWritable(const std::filesystem::path& directory) {
  std::error_code error;
  std::filesystem::create_directories(directory, error);
  if (!error && access(directory.c_str(), W_OK | X_OK) != 0)
    error.assign(errno, std::generic_category());
  if (error) {
    throw std::runtime_error("the data directory " + directory.string() +
                             " cannot be used: " + error.message());
  }
}

// Cuts a text between characters.
void limit(std::string& text) {
  if (text.size() <= OperationLog::kTextLimit) return;
  std::size_t end = OperationLog::kTextLimit;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0) == 0x80) --end;
  text.resize(end);
}

}  // namespace

// Never destroyed: requests may still insert while the process ends.
OperationLog& OperationLog::instance() {
  static auto* const log = new OperationLog;
  return *log;
}

OperationLog::OperationLog(std::chrono::milliseconds retryTime) : retryTime_(retryTime) {}

OperationLog::~OperationLog() { stop(); }

void OperationLog::start(const std::filesystem::path& dataDir, std::size_t rows) {
  requireWritable(dataDir);
  file_ = fileIn(dataDir);
  rows_ = rows;
  batch_.reserve(kBatchLimit);
  const MutexLock lock(mutex_);
  writer_ = std::thread([this] { run(); });
  running_ = true;
}

void OperationLog::stop() {
  {
    const MutexLock lock(mutex_);
    running_ = false;
  }
  wakeUp_.notifyAll();
  if (writer_.joinable()) writer_.join();
}

uint64_t OperationLog::insert(const tagLogInfo& info) {
  tagLogInfo record = info;
  for (std::string* text : {&record.user, &record.clientIp, &record.operation, &record.isoTime,
                            &record.category, &record.result})
    limit(*text);
  uint64_t number;
  {
    const MutexLock lock(mutex_);
    if (!running_) return 0;
    if (queue_.size() >= kQueueLimit) {
      ++lost_;
      lostEver_.add();
      return 0;
    }
    number = ++lastNumber_;
    queue_.push_back({number, std::move(record), 0});
    waiting_ = queue_.size();
  }
  wakeUp_.notifyOne();
  return number;
}

void OperationLog::answered(uint64_t number, int status) {
  {
    const MutexLock lock(mutex_);
    if (number > lastNumber_) return;
    if (!queue_.empty() && number >= queue_.front().number) {
      queue_[number - queue_.front().number].status = status;
      return;
    }
    if (!running_ || late_.size() >= kQueueLimit) return;
    late_.push_back({number, status});
  }
  wakeUp_.notifyOne();
}

OperationLog::Load OperationLog::load() const {
  return {waiting_, written_.value(), lostEver_.value(), failing_};
}

void OperationLog::run() {
  pthread_setname_np(pthread_self(), "oplog");
  write();  // no records yet, but a database that cannot be used is known from the start
  while (nextBatch()) {
    bool last = false;  // attempt
    while (!write()) {
      if (last) {
        discardAll();
        break;
      }
      last = !waitForRetry();
    }
  }
  reportLost();
  database_.reset();
}

// Waits for records; false when the log has stopped and all are written.
bool OperationLog::nextBatch() {
  const MutexLock lock(mutex_);
  while (running_ && queue_.empty() && late_.empty()) wakeUp_.wait(mutex_);
  const auto end =
      queue_.begin() + static_cast<std::ptrdiff_t>(std::min(queue_.size(), kBatchLimit));
  batch_.assign(std::make_move_iterator(queue_.begin()), std::make_move_iterator(end));
  queue_.erase(queue_.begin(), end);
  answers_.assign(late_.begin(), late_.end());
  late_.clear();
  waiting_ = queue_.size();
  return !batch_.empty() || !answers_.empty();
}

bool OperationLog::write() {
  try {
    if (!database_) database_ = std::make_unique<OperationDatabase>(file_);
    database_->append(batch_, answers_, rows_);
    written_.add(batch_.size());
    reportSuccess();
    return true;
  } catch (const DatabaseError& e) {
    database_.reset();
    reportFailure(e.what());
    if (e.isUnreadable()) setAside();
  } catch (const std::bad_alloc&) {
    database_.reset();
    reportFailure("out of memory");
  }
  return false;
}

// Once for each reason, however often it is tried again.
void OperationLog::reportFailure(const std::string& reason) {
  failing_ = true;
  if (reason == failure_) return;
  logError("operation log: {} cannot be written: {}; trying again every {} ms", file_.string(),
           reason, retryTime_.count());
  failure_ = reason;
}

void OperationLog::reportSuccess() {
  if (!failure_.empty()) logError("operation log: {} is written again", file_.string());
  failure_.clear();
  failing_ = false;
  const auto now = std::chrono::steady_clock::now();
  if (now - lossReported_ < kLossReportTime) return;
  lossReported_ = now;
  reportLost();
}

void OperationLog::reportLost() {
  uint64_t lost = 0;
  {
    const MutexLock lock(mutex_);
    lost = std::exchange(lost_, 0);
  }
  if (lost != 0) logError("operation log: {} records lost, not written in time", lost);
}

// False when the log has stopped.
bool OperationLog::waitForRetry() {
  const MutexLock lock(mutex_);
  const auto end = std::chrono::steady_clock::now() + retryTime_;
  while (running_ && wakeUp_.waitUntil(mutex_, end)) continue;
  return running_;
}

void OperationLog::setAside() {
  const std::string file = file_.string();
  std::error_code error;
  std::filesystem::rename(file, file + ".unreadable", error);
  if (error) {
    logError("operation log: {} cannot be moved: {}", file, error.message());
    return;
  }
  std::filesystem::remove(file + "-wal", error);
  std::filesystem::remove(file + "-shm", error);
  logWarn("operation log: {} is damaged; it was moved to {}.unreadable", file, file);
}

void OperationLog::discardAll() {
  const MutexLock lock(mutex_);
  lost_ += batch_.size() + queue_.size();
  lostEver_.add(batch_.size() + queue_.size());
  queue_.clear();
  waiting_ = 0;
}

}  // namespace qn

int QN_GatewayCfgBus_InsertLogInfo(const tagLogInfo& info) {
  try {
    const uint64_t number = qn::OperationLog::instance().insert(info);
    if (number == 0) return -1;
    if (qn::LoginRequest* const request = qn::LoginRequest::current()) {
      request->onAnswer(
          [number](int status) { qn::OperationLog::instance().answered(number, status); });
    }
    return 0;
  } catch (const std::bad_alloc&) {
    return -1;
  }
}
