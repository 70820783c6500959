// See data_folder.h.
#include "gateway/host/data_folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

#include "gateway/log/log.h"

namespace qn {
namespace {

constexpr std::string_view kBeWritable =
    "; make it writable for the gateway's user (chown), or name another one in storage.data_dir";

[[noreturn]] void fail(const std::filesystem::path& folder, const std::string& reason,
                       std::string_view advice = kBeWritable) {
  throw std::runtime_error("the data directory " + folder.string() + " cannot be used: " + reason +
                           std::string(advice));
}

// For nobody but us, also what an older gateway or an operator's copy left there. What belongs to
// somebody else keeps its mode: the folder above it decides.
void shutOthersOut(const std::filesystem::path& folder) {
  using std::filesystem::perms;
  std::error_code error;
  std::filesystem::permissions(folder, perms::owner_all, error);
  if (error) {
    logWarn("{} may be read by others: {}", folder.string(), error.message());
    return;
  }
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    if (!entry.is_regular_file(error) || entry.is_symlink(error)) continue;
    std::filesystem::permissions(entry.path(), perms::owner_read | perms::owner_write, error);
  }
}

std::string lastError() { return std::generic_category().message(errno); }

}  // namespace

DataFolder::DataFolder(const std::filesystem::path& folder) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) fail(folder, error.message());
  shutOthersOut(folder);
  const auto file = folder / "lock";
  lock_ = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
  if (lock_ < 0) fail(folder, lastError());
  if (::flock(lock_, LOCK_EX | LOCK_NB) == 0) return;
  const bool taken = errno == EWOULDBLOCK;
  const std::string reason = taken ? "another process is using it" : "lock: " + lastError();
  ::close(lock_);
  if (taken) fail(folder, reason, "; end that gateway, or name another one in storage.data_dir");
  fail(folder, reason);
}

DataFolder::~DataFolder() { ::close(lock_); }

}  // namespace qn
