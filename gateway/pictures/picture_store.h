// The uploaded face pictures: one file each in a folder of the data directory, and an index of them
// in memory, which is read from the folder at start. Used by PictureResource.
#pragma once

#include <cstddef>
#include <filesystem>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "gateway/config/configuration.h"
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
  // unspecified otherwise.
  Result add(std::string_view picture, std::string& name);
  // Nothing for a name that is not in the index.
  std::optional<std::string> find(std::string_view name) const;

  // From now on; what is there stays until the next picture needs the room.
  void setOptions(const PictureOptions& options);

 private:
  struct Picture {
    std::string name;
    std::size_t bytes;
  };
  using Pictures = std::list<Picture>;  // the oldest first

  void readFolder();
  bool makeRoom(std::size_t bytes, Pictures& dropped) QN_REQUIRES(mutex_);
  void insert(Pictures& one) QN_REQUIRES(mutex_);
  std::filesystem::path fileOf(std::string_view name) const;

  const std::filesystem::path folder_;
  mutable Mutex mutex_;
  PictureOptions options_ QN_GUARDED_BY(mutex_);
  Pictures pictures_ QN_GUARDED_BY(mutex_);
  // Views of the list's names.
  std::unordered_map<std::string_view, Pictures::iterator> byName_ QN_GUARDED_BY(mutex_);
  // Of all pictures, and of those being written.
  std::size_t bytes_ QN_GUARDED_BY(mutex_) = 0;
  std::size_t count_ QN_GUARDED_BY(mutex_) = 0;
};

}  // namespace qn
