// See picture_store.h.
#include "gateway/pictures/picture_store.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "gateway/auth/digest.h"
#include "gateway/log/log.h"
#include "gateway/pictures/picture_file.h"
#include "text/hex.h"

namespace qn {
namespace {

namespace fs = std::filesystem;

// A picture's file is called "OWNER-NAME", or as the picture where nobody owns it.
constexpr std::size_t kOwnerDigits = 16;

// Of what the others leave, a user leaves one part in so many.
constexpr std::size_t kPartForOthers = 4;

std::string ownerTag(std::string_view owner) {
  if (owner.empty()) return {};
  const HexDigest digest = hexDigest(DigestAlgorithm::SHA256, {owner});
  return std::string(digest.text().substr(0, kOwnerDigits));
}

// Of those whom the configuration has.
std::unordered_set<std::string> usersTags() {
  std::unordered_set<std::string> tags;
  for (const UserConfig& user : configuration()->users) tags.insert(ownerTag(user.name));
  return tags;
}

std::string ownerOfFile(std::string_view file) {
  const bool owned = file.size() > kOwnerDigits && file[kOwnerDigits] == '-' &&
                     text::isHex(file.substr(0, kOwnerDigits));
  return std::string(owned ? file.substr(0, kOwnerDigits) : "");
}

struct Found {
  fs::file_time_type time;
  std::string name;
  std::string owner;
  std::size_t bytes;

  auto operator<=>(const Found&) const = default;
};

// The folder's pictures, the oldest first. Files that are not the store's are left alone.
std::vector<Found> pictureFiles(const fs::path& folder) {
  std::vector<Found> found;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    std::string name = entry.path().filename().string();
    if (!entry.is_regular_file() || entry.is_symlink()) continue;
    const std::string owner = ownerOfFile(name);
    if (!owner.empty()) name.erase(0, kOwnerDigits + 1);
    if (isPartName(name)) {
      fs::remove(entry.path());
    } else if (isPictureName(name)) {
      found.push_back({entry.last_write_time(), name, owner, entry.file_size()});
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
    : folder_(std::move(folder)) {
  setOptions(options);
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
    Share& share = shareOf(found.owner);
    take(share, found.bytes);
    Pictures one{{std::move(found.name), found.bytes, &share}};
    insert(one);
  }
}

void PictureStore::setOptions(const PictureOptions& options) {
  const MutexLock lock(mutex_);
  options_ = options;
  maxBytes_ = options.maxBytes;
  maxCount_ = options.maxCount;
}

PictureStore::Load PictureStore::load() const {
  return {bytes_,          count_,           maxBytes_,       maxCount_,
          stored_.value(), dropped_.value(), refused_.value()};
}

PictureStore::Result PictureStore::refuse(Result why) {
  refused_.add();
  return why;
}

PictureStore::Share& PictureStore::shareOf(const std::string& owner) {
  const auto [found, isNew] = shares_.try_emplace(owner);
  if (isNew) found->second.owner = owner;  // constant from then on: writers read it without a lock
  return found->second;
}

void PictureStore::take(Share& share, std::size_t bytes) {
  share.bytes += bytes;
  ++share.count;
  bytes_ += bytes;
  ++count_;
}

void PictureStore::release(Share& share, std::size_t bytes, std::size_t count) {
  share.bytes -= bytes;
  share.count -= count;
  bytes_ -= bytes;
  count_ -= count;
  if (share.count == 0) shares_.erase(shares_.find(share.owner));
}

// Takes the one picture out of the list. When it throws, nothing has changed.
void PictureStore::insert(Pictures& one) {
  byName_.emplace(one.front().name, one.begin());
  Pictures& pictures = one.front().share->pictures;
  pictures.splice(pictures.end(), one);
}

// With what is being freed.
bool PictureStore::hasRoom(const Share& own, std::size_t bytes) {
  std::size_t restBytes = options_.maxBytes;
  std::size_t restCount = options_.maxCount;
  for (const auto& [owner, share] : shares_) {
    if (&share == &own) continue;
    restBytes -= std::min(restBytes, share.bytes - share.freedBytes);
    restCount -= std::min(restCount, share.count - share.freedCount);
  }
  if (!own.owner.empty()) {
    restBytes -= restBytes / kPartForOthers;
    restCount -= restCount / kPartForOthers;
  }
  return own.bytes - own.freedBytes + bytes <= restBytes && own.count - own.freedCount < restCount;
}

// Whose oldest picture goes next; null: nobody's.
PictureStore::Share* PictureStore::nextToGive(Share& own, const Tags& users) {
  const auto canGive = [](const Share& share) { return share.kept != share.pictures.end(); };
  for (auto& [owner, share] : shares_) {
    if (&share != &own && canGive(share) && !users.contains(owner)) return &share;
  }
  return canGive(own) ? &own : nullptr;
}

// Counts a picture that is going to be written, and takes those that must go for it out of the
// index: their files are `dropped`. False when there is no room for it: nothing has changed then.
bool PictureStore::makeRoom(Share& own, std::size_t bytes, std::vector<fs::path>& dropped) {
  for (auto& [owner, share] : shares_) {
    share.kept = share.pictures.begin();
    share.freedBytes = share.freedCount = 0;
  }
  const bool mayDrop =
      options_.full == PictureOptions::WhenFull::DropOldest && bytes <= options_.maxBytes;
  Tags users;
  if (mayDrop && !hasRoom(own, bytes)) users = usersTags();
  while (!hasRoom(own, bytes)) {
    Share* const giver = mayDrop ? nextToGive(own, users) : nullptr;
    if (!giver) return false;
    dropped.push_back(fileOf(*giver->kept));
    giver->freedBytes += giver->kept->bytes;
    ++giver->freedCount;
    ++giver->kept;
  }
  take(own, bytes);
  for (auto next = shares_.begin(); next != shares_.end();) {
    Share& share = (next++)->second;
    for (auto each = share.pictures.begin(); each != share.kept; ++each) byName_.erase(each->name);
    share.pictures.erase(share.pictures.begin(), share.kept);
    release(share, share.freedBytes, share.freedCount);
  }
  return true;
}

PictureStore::Result PictureStore::add(std::string_view picture, std::string_view owner,
                                       std::string& name) {
  const std::string tag = ownerTag(owner);
  std::vector<fs::path> dropped;
  Share* share = nullptr;
  {
    const MutexLock lock(mutex_);
    share = &shareOf(tag);
    if (!makeRoom(*share, picture.size(), dropped)) {
      release(*share, 0, 0);
      return refuse(Result::Full);
    }
  }
  dropped_.add(dropped.size());
  for (const fs::path& each : dropped) {
    std::error_code ignored;  // a file that stays is taken in again at the next start
    fs::remove(each, ignored);
  }
  fs::path file;
  try {
    name = newPictureName(picture);
    Pictures one{{name, picture.size(), share}};
    file = fileOf(one.front());
    writePicture(file, picture);
    const MutexLock lock(mutex_);
    insert(one);
    stored_.add();
    return Result::Stored;
  } catch (const std::exception& error) {
    logError("a picture of {} bytes cannot be stored: {}", picture.size(), error.what());
    std::error_code ignored;
    fs::remove(file, ignored);
    const MutexLock lock(mutex_);
    release(*share, picture.size(), 1);
    const auto* const system = dynamic_cast<const std::system_error*>(&error);
    return refuse(system && isOutOfSpace(system->code()) ? Result::Full : Result::Failed);
  }
}

std::optional<std::string> PictureStore::find(std::string_view name) const {
  fs::path file;
  {
    const MutexLock lock(mutex_);
    const auto found = byName_.find(name);
    if (found == byName_.end()) return std::nullopt;
    file = fileOf(*found->second);
  }
  return readPicture(file);
}

fs::path PictureStore::fileOf(const Picture& picture) const {
  const std::string& owner = picture.share->owner;
  return folder_ / (owner.empty() ? picture.name : owner + '-' + picture.name);
}

}  // namespace qn
