// See reloads.h.
#include "gateway/admin/reloads.h"

namespace qn {

void Reloads::begin() {
  const MutexLock lock(mutex_);
  ++begun_;
}

void Reloads::end(const std::string& refusal) {
  const MutexLock lock(mutex_);
  ++state_.ended;
  state_.refusal = refusal;
  if (refusal.empty()) state_.time = std::chrono::system_clock::now();
  changed_.notifyAll();
}

// One that has begun already may have read the file as it was before the caller changed it.
std::optional<std::string> Reloads::ask() {
  const auto deadline = std::chrono::steady_clock::now() + kWait;
  const MutexLock lock(mutex_);
  const uint64_t awaited = begun_ + 1;
  if (!closed_) ring_();
  while (state_.ended < awaited) {
    if (closed_ || !changed_.waitUntil(mutex_, deadline)) return std::nullopt;
  }
  return state_.refusal;
}

void Reloads::close() {
  const MutexLock lock(mutex_);
  closed_ = true;
  changed_.notifyAll();
}

Reloads::State Reloads::state() const {
  const MutexLock lock(mutex_);
  return state_;
}

}  // namespace qn
