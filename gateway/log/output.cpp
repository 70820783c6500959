// See output.h.
#include "gateway/log/output.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

#include "gateway/log/log.h"

namespace qn {
namespace {

// Lines of this time are written together: waking the thread costs more than writing a line.
constexpr std::chrono::milliseconds kGathering{2};

constexpr std::size_t kKeptBytes = 256 * 1024;  // of memory for lines, between bursts
constexpr mode_t kOwnerOnly = 0600;

}  // namespace

class LogOutput::File {
 public:
  explicit File(const std::string& name)
      : descriptor_(name.empty() ? STDERR_FILENO
                                 : ::open(name.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC,
                                          kOwnerOnly)) {
    if (descriptor_ < 0) throw std::system_error(errno, std::generic_category(), name);
  }
  ~File() {
    if (descriptor_ != STDERR_FILENO) ::close(descriptor_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  // How many lines could not be written.
  uint64_t write(std::string_view lines) const {
    while (!lines.empty()) {
      const ssize_t count = ::write(descriptor_, lines.data(), lines.size());
      if (count >= 0) {
        lines.remove_prefix(static_cast<std::size_t>(count));
      } else if (errno == EAGAIN) {  // somebody made standard error non-blocking
        pollfd writable{descriptor_, POLLOUT, 0};
        ::poll(&writable, 1, -1);
      } else if (errno != EINTR) {
        return static_cast<uint64_t>(std::ranges::count(lines, '\n'));
      }
    }
    return 0;
  }

 private:
  const int descriptor_;
};

// Never destroyed: threads and destructors may log while the process ends.
LogOutput& LogOutput::instance() {
  static auto* const output = new LogOutput;
  return *output;
}

LogOutput::LogOutput() : file_(std::make_shared<const File>(std::string())) {}

void LogOutput::open(const std::string& file) {
  auto opened = std::make_shared<const File>(file);
  const MutexLock lock(mutex_);
  file_.swap(opened);
  name_ = file;
}

void LogOutput::reopen() {
  std::string name;
  {
    const MutexLock lock(mutex_);
    name = name_;
  }
  open(name);
}

void LogOutput::write(std::string_view line) {
  const MutexLock lock(mutex_);
  if (state_ == State::Direct) {
    dropped_ += file_->write(line);
  } else if (state_ == State::Ended || waiting_.size() + line.size() > kWaitingBytes) {
    ++dropped_;
  } else {
    waiting_ += line;
    if (std::exchange(asleep_, false)) changed_.notifyAll();
  }
}

void LogOutput::start() {
  const MutexLock lock(mutex_);
  if (state_ != State::Direct) return;
  std::thread([this] { run(); }).detach();  // stop() may have to leave it behind
  state_ = State::Threaded;
}

void LogOutput::stop() {
  const auto end = std::chrono::steady_clock::now() + kFlushTime;
  const MutexLock lock(mutex_);
  if (state_ != State::Threaded) return;
  state_ = State::Stopping;
  asleep_ = false;
  changed_.notifyAll();
  while (state_ == State::Stopping && changed_.waitUntil(mutex_, end)) {
  }
  if (state_ == State::Stopping) state_ = State::Ended;
}

void LogOutput::waitForLines() {
  while (waiting_.empty() && state_ == State::Threaded) {
    asleep_ = true;
    changed_.wait(mutex_);
  }
  asleep_ = false;
}

void LogOutput::run() {
  pthread_setname_np(pthread_self(), "log");
  std::string lines;
  MutexLock lock(mutex_);
  for (;;) {
    waitForLines();
    if (waiting_.empty()) break;
    lock.unlock();
    std::this_thread::sleep_for(kGathering);
    lock.lock();
    lines.swap(waiting_);
    const auto file = file_;
    lock.unlock();
    const uint64_t lost = file->write(lines);
    dropped_ += lost;
    lines.clear();
    if (lines.capacity() > kKeptBytes) lines.shrink_to_fit();
    if (lost == 0) reportDropped();  // not to a full disk
    lock.lock();
  }
  if (state_ == State::Stopping) state_ = State::Direct;
  changed_.notifyAll();
}

void LogOutput::reportDropped() {
  const uint64_t all = dropped();
  if (all == reported_) return;
  const uint64_t since = all - std::exchange(reported_, all);
  logWarn("{} lines of the log were dropped: they could not be written fast enough", since);
}

}  // namespace qn
