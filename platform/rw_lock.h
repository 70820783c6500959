// Reader/writer lock of the base library; not recursive. The reference implementation is
// gateway/base.
#pragma once

#include <shared_mutex>

namespace QNBase {

class CRWLock {
 public:
  void ReadLock() { mutex_.lock_shared(); }
  void ReadUnlock() { mutex_.unlock_shared(); }
  void WriteLock() { mutex_.lock(); }
  void WriteUnlock() { mutex_.unlock(); }

  // Scoped forms.
  class ReadGuard {
   public:
    explicit ReadGuard(CRWLock& lock) : lock_(lock) { lock_.ReadLock(); }
    ~ReadGuard() { lock_.ReadUnlock(); }
    ReadGuard(const ReadGuard&) = delete;
    ReadGuard& operator=(const ReadGuard&) = delete;

   private:
    CRWLock& lock_;
  };
  class WriteGuard {
   public:
    explicit WriteGuard(CRWLock& lock) : lock_(lock) { lock_.WriteLock(); }
    ~WriteGuard() { lock_.WriteUnlock(); }
    WriteGuard(const WriteGuard&) = delete;
    WriteGuard& operator=(const WriteGuard&) = delete;

   private:
    CRWLock& lock_;
  };

 private:
  std::shared_mutex mutex_;
};

}  // namespace QNBase
