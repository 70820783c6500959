// See picture_store.h.
#include "gateway/pictures/picture_store.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "gateway/log/log.h"
#include "gateway/pictures/picture_file.h"

namespace qn {
namespace {

namespace fs = std::filesystem;

struct Found {
  fs::file_time_type time;
  std::string name;
  std::size_t bytes;

  auto operator<=>(const Found&) const = default;
};

// The folder's pictures, the oldest first. Files that are not the store's are left alone.
std::vector<Found> pictureFiles(const fs::path& folder) {
  std::vector<Found> found;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    if (!entry.is_regular_file() || entry.is_symlink()) continue;
    if (isPartName(name)) {
      fs::remove(entry.path());
    } else if (isPictureName(name)) {
      found.push_back({entry.last_write_time(), name, entry.file_size()});
    }
  }
  std::sort(found.begin(), found.end());
  return found;
}

bool isOutOfSpace(const std::error_code& error) {
  return error == std::errc::no_space_on_device || error.value() == EDQUOT;
}

}  // namespace

PictureStore::PictureStore(fs::path folder, const PictureOptions& options)
    : folder_(std::move(folder)), options_(options) {
  try {
    if (fs::create_directories(folder_)) fs::permissions(folder_, fs::perms::owner_all);
    readFolder();
  } catch (const fs::filesystem_error& error) {
    throw std::runtime_error("the picture folder " + folder_.string() +
                             " cannot be used: " + error.code().message());
  }
}

void PictureStore::readFolder() {
  const MutexLock lock(mutex_);
  for (Found& found : pictureFiles(folder_)) {
    bytes_ += found.bytes;
    ++count_;
    Pictures one{{std::move(found.name), found.bytes}};
    insert(one);
  }
}

void PictureStore::setOptions(const PictureOptions& options) {
  const MutexLock lock(mutex_);
  options_ = options;
}

// Takes the one picture out of the list. When it throws, nothing has changed.
void PictureStore::insert(Pictures& one) {
  byName_.emplace(one.front().name, one.begin());
  pictures_.splice(pictures_.end(), one);
}

// Counts a picture that is going to be written, and moves those that must go for it to `dropped`.
// False when there is no room for it: nothing has changed then.
bool PictureStore::makeRoom(std::size_t bytes, Pictures& dropped) {
  const auto fits = [&](std::size_t freedBytes, std::size_t freedCount) QN_REQUIRES(mutex_) {
    return bytes <= options_.maxBytes && bytes_ - freedBytes <= options_.maxBytes - bytes &&
           count_ - freedCount < options_.maxCount;
  };
  std::size_t freedBytes = 0;
  std::size_t freedCount = 0;
  auto kept = pictures_.begin();
  if (options_.full == PictureOptions::WhenFull::DropOldest) {
    for (; kept != pictures_.end() && !fits(freedBytes, freedCount); ++kept, ++freedCount) {
      freedBytes += kept->bytes;
    }
  }
  if (!fits(freedBytes, freedCount)) return false;
  for (auto each = pictures_.begin(); each != kept; ++each) byName_.erase(each->name);
  dropped.splice(dropped.begin(), pictures_, pictures_.begin(), kept);
  bytes_ += bytes - freedBytes;
  count_ += 1 - freedCount;
  return true;
}

PictureStore::Result PictureStore::add(std::string_view picture, std::string& name) {
  Pictures dropped;
  {
    const MutexLock lock(mutex_);
    if (!makeRoom(picture.size(), dropped)) return Result::Full;
  }
  for (const Picture& each : dropped) {
    std::error_code ignored;  // a file that stays is taken in again at the next start
    fs::remove(fileOf(each.name), ignored);
  }
  fs::path file;
  try {
    name = newPictureName(picture);
    file = fileOf(name);
    writePicture(file, picture);
    Pictures one{{name, picture.size()}};
    const MutexLock lock(mutex_);
    insert(one);
    return Result::Stored;
  } catch (const std::exception& error) {
    logError("a picture of {} bytes cannot be stored: {}", picture.size(), error.what());
    std::error_code ignored;
    fs::remove(file, ignored);
    const MutexLock lock(mutex_);
    bytes_ -= picture.size();
    --count_;
    const auto* const system = dynamic_cast<const std::system_error*>(&error);
    return system && isOutOfSpace(system->code()) ? Result::Full : Result::Failed;
  }
}

std::optional<std::string> PictureStore::find(std::string_view name) const {
  {
    const MutexLock lock(mutex_);
    if (!byName_.contains(name)) return std::nullopt;
  }
  return readPicture(fileOf(name));
}

fs::path PictureStore::fileOf(std::string_view name) const { return folder_ / name; }

}  // namespace qn
