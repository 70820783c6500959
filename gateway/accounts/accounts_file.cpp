// See accounts_file.h.
#include "gateway/accounts/accounts_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "gateway/config/configuration_file.h"
#include "gateway/config/secret_file.h"

namespace qn {
namespace {

using Path = std::filesystem::path;

constexpr mode_t kModes = 07777;
constexpr std::chrono::milliseconds kPause{20};

[[noreturn]] void failed(const Path& file) {
  throw std::system_error(errno, std::generic_category(), file.string());
}

// An open file.
class Descriptor {
 public:
  Descriptor(const Path& name, int flags, mode_t mode = 0)
      : name_(name), number_(::open(name.c_str(), flags | O_CLOEXEC, mode)) {
    if (number_ < 0) failed(name_);
  }
  ~Descriptor() { ::close(number_); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  // The mode last: a change of the owner takes bits of it away.
  void takeAfter(const struct stat& other) {
    struct stat own {};
    if (::fstat(number_, &own) != 0) failed(name_);
    const bool same = own.st_uid == other.st_uid && own.st_gid == other.st_gid;
    if (!same && ::fchown(number_, other.st_uid, other.st_gid) != 0) failed(name_);
    if (::fchmod(number_, other.st_mode & kModes) != 0) failed(name_);
  }
  void write(std::string_view content) {
    while (!content.empty()) {
      const ssize_t written = ::write(number_, content.data(), content.size());
      if (written < 0 && errno != EINTR) failed(name_);
      if (written > 0) content.remove_prefix(std::size_t(written));
    }
  }
  void flush() {
    if (::fsync(number_) != 0) failed(name_);
  }

 private:
  const Path name_;
  const int number_;
};

struct stat factsOf(const Path& file) {
  struct stat facts {};
  if (::stat(file.c_str(), &facts) != 0) failed(file);
  return facts;
}

Path folderOf(const Path& file) { return file.has_parent_path() ? file.parent_path() : Path("."); }

}  // namespace

void replaceFile(const Path& file, const std::string& content) {
  const struct stat facts = factsOf(file);
  Path fresh = file;
  fresh += ".new";
  ::unlink(fresh.c_str());  // of one that was killed
  try {
    Descriptor out(fresh, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    out.takeAfter(facts);
    out.write(content);
    out.flush();
    if (::rename(fresh.c_str(), file.c_str()) != 0) failed(file);
  } catch (...) {
    ::unlink(fresh.c_str());
    throw;
  }
  Descriptor(folderOf(file), O_RDONLY | O_DIRECTORY).flush();
}

AccountsFile::AccountsFile(const Path& file, const Path& like)
    : path_(std::filesystem::weakly_canonical(file)) {
  const auto deadline = std::chrono::steady_clock::now() + kWait;
  while (!open()) {
    if (errno == ENOENT) {
      make(like);
    } else if (errno != EWOULDBLOCK) {
      throw std::runtime_error(path_.string() + ": " + std::generic_category().message(errno));
    } else if (std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error(path_.string() + ": another command holds it for " +
                               std::to_string(kWait.count()) + " s");
    } else {
      std::this_thread::sleep_for(kPause);
    }
  }
}

// False with the reason in errno. The lock is on the file and goes with its descriptor; while this
// process waited another may have put a new file in its place, which is then to be opened.
bool AccountsFile::open() {
  file_ = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file_ < 0) return false;
  struct stat opened {};
  struct stat named {};
  const bool locked = ::flock(file_, LOCK_EX | LOCK_NB) == 0;
  const bool same = locked && ::fstat(file_, &opened) == 0 && ::stat(path_.c_str(), &named) == 0 &&
                    opened.st_ino == named.st_ino && opened.st_dev == named.st_dev;
  if (same) return true;
  ::close(std::exchange(file_, -1));
  errno = EWOULDBLOCK;
  return false;
}

void AccountsFile::make(const Path& like) {
  try {
    Descriptor out(path_, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    out.takeAfter(factsOf(like));
    made_ = true;
  } catch (const std::system_error& error) {
    const bool others = error.code().value() == EEXIST && !is_symlink(path_);
    if (others) return;
    throw std::runtime_error(std::string("cannot be made: ") + error.what());
  }
}

AccountsFile::~AccountsFile() {
  struct stat facts {};
  const bool empty = made_ && ::stat(path_.c_str(), &facts) == 0 && facts.st_size == 0;
  if (empty) ::unlink(path_.c_str());
  ::close(file_);
}

std::string AccountsFile::content() const {
  try {
    std::string content = contentOf(path_, kConfigurationFileBytes);
    if (content.size() <= kConfigurationFileBytes) return content;
  } catch (const std::system_error& error) {
    throw std::runtime_error(path_.string() + " cannot be read: " + error.code().message());
  }
  throw std::runtime_error(path_.string() + ": expected at most " +
                           std::to_string(kConfigurationFileBytes) + " bytes");
}

void AccountsFile::replace(const std::string& content) {
  try {
    replaceFile(path_, content);
  } catch (const std::system_error& error) {
    throw std::runtime_error(std::string("not changed: ") + error.what());
  }
}

}  // namespace qn
