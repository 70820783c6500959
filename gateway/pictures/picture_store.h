// The uploaded face pictures: one file each in a folder of the data directory, and an index of them
// in memory, which is read from the folder at start. Used by PictureResource.
#pragma once

#include <atomic>
#include <cstddef>
#include <filesystem>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "gateway/config/configuration.h"
#include "gateway/metrics/counter.h"
#include "gateway/sync/mutex.h"

namespace qn {

// Any thread, several at once. Waits for the disk, but never with the lock held.
class PictureStore {
 public:
  // Makes the folder when it is missing, removes what a crash left half written and takes in the
  // pictures that are there. Throws std::runtime_error with the reason.
  PictureStore(std::filesystem::path folder, const PictureOptions& options);
  PictureStore(const PictureStore&) = delete;
  PictureStore& operator=(const PictureStore&) = delete;

  enum class Result { Stored, Full, Failed };
  // Full: the options leave no room, or the disk has none. Stored: for good, under `name`, which is
  // unspecified otherwise. `owner`: the user, or nobody. A user has at most three quarters of what
  // the others leave, and makes room with the own oldest: nobody's pictures go for another's, and
  // there is room for one who comes late. Those of nobody, or of a user whom the configuration does
  // not have any more, go before all.
  Result add(std::string_view picture, std::string_view owner, std::string& name);
  // Nothing for a name that is not in the index.
  std::optional<std::string> find(std::string_view name) const;

  // Takes no lock.
  struct Load {
    std::size_t bytes;
    std::size_t pictures;
    std::size_t maxBytes;
    std::size_t maxCount;
    uint64_t stored;  // ever, since the start
    uint64_t dropped;
    uint64_t refused;
  };
  Load load() const;

  // From now on; what is there stays until the next picture needs the room.
  void setOptions(const PictureOptions& options);

 private:
  using Tags = std::unordered_set<std::string>;  // of owners
  struct Share;
  struct Picture {
    std::string name;
    std::size_t bytes;
    Share* share;
  };
  using Pictures = std::list<Picture>;  // the oldest first
  // Of one owner, those being written included.
  struct Share {
    std::string owner;  // as its files' names say it
    Pictures pictures;
    std::size_t bytes = 0;
    std::size_t count = 0;
    // While room is being made: the first that stays, and what is freed before it.
    Pictures::iterator kept{};
    std::size_t freedBytes = 0;
    std::size_t freedCount = 0;
  };

  void readFolder();
  Result refuse(Result why);
  Share& shareOf(const std::string& owner) QN_REQUIRES(mutex_);
  void take(Share& share, std::size_t bytes) QN_REQUIRES(mutex_);
  void release(Share& share, std::size_t bytes, std::size_t count) QN_REQUIRES(mutex_);
  bool makeRoom(Share& own, std::size_t bytes, std::vector<std::filesystem::path>& dropped)
      QN_REQUIRES(mutex_);
  bool hasRoom(const Share& own, std::size_t bytes) QN_REQUIRES(mutex_);
  Share* nextToGive(Share& own, const Tags& users) QN_REQUIRES(mutex_);
  void insert(Pictures& one) QN_REQUIRES(mutex_);
  std::filesystem::path fileOf(const Picture& picture) const;

  const std::filesystem::path folder_;
  mutable Mutex mutex_;
  PictureOptions options_ QN_GUARDED_BY(mutex_);
  std::map<std::string, Share> shares_ QN_GUARDED_BY(mutex_);  // of those who have pictures
  // Views of the lists' names.
  std::unordered_map<std::string_view, Pictures::iterator> byName_ QN_GUARDED_BY(mutex_);
  // Of all shares; changed with the mutex held.
  std::atomic<std::size_t> bytes_{0};
  std::atomic<std::size_t> count_{0};
  std::atomic<std::size_t> maxBytes_{0};  // the options', for load()
  std::atomic<std::size_t> maxCount_{0};
  Counter stored_;
  Counter dropped_;
  Counter refused_;
};

}  // namespace qn
