// See picture_file.h.
#include "gateway/pictures/picture_file.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "text/hex.h"

namespace qn {
namespace {

struct Format {
  std::string_view magic;  // how its files begin
  std::string_view extension;
  const char* type;
};
// The last one takes what is none of the others.
constexpr std::array<Format, 4> kFormats = {{
    {"\xFF\xD8\xFF", ".jpg", "image/jpeg"},
    {"\x89PNG\r\n\x1A\n", ".png", "image/png"},
    {"BM", ".bmp", "image/bmp"},
    {"", ".bin", "application/octet-stream"},
}};

constexpr std::size_t kRandomBytes = 16;
constexpr std::size_t kExtension = 4;  // of every format
constexpr std::size_t kNameLength = 2 * kRandomBytes + kExtension;
constexpr std::string_view kPart = ".part";

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

class File {
 public:
  File(const std::filesystem::path& path, int flags)
      : descriptor_(::open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR)) {}
  ~File() {
    if (isOpen()) ::close(descriptor_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  bool isOpen() const { return descriptor_ >= 0; }
  int descriptor() const { return descriptor_; }

 private:
  const int descriptor_;
};

void writeAll(const File& file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(file.descriptor(), bytes.data(), bytes.size());
    if (count < 0 && errno != EINTR) fail("write");
    if (count > 0) bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

// A rename is on the disk when its folder is.
void flushFolder(const std::filesystem::path& folder) {
  const File opened(folder, O_RDONLY | O_DIRECTORY);
  if (!opened.isOpen() || ::fsync(opened.descriptor()) != 0) fail("fsync of the folder");
}

}  // namespace

std::string newPictureName(std::string_view picture) {
  std::array<unsigned char, kRandomBytes> random;
  if (::getrandom(random.data(), random.size(), 0) != ssize_t{kRandomBytes}) fail("getrandom");
  std::string name = text::hexOf(random);
  const auto format = std::find_if(kFormats.begin(), kFormats.end(), [picture](const Format& each) {
    return picture.starts_with(each.magic);
  });
  return name.append(format->extension);
}

bool isPictureName(std::string_view name) {
  return name.size() == kNameLength &&
         name.find_first_not_of(text::kHexDigits) == kNameLength - kExtension &&
         std::any_of(kFormats.begin(), kFormats.end(),
                     [name](const Format& each) { return name.ends_with(each.extension); });
}

const char* pictureType(std::string_view name) {
  const auto format = std::find_if(kFormats.begin(), kFormats.end(), [name](const Format& each) {
    return name.ends_with(each.extension);
  });
  return format == kFormats.end() ? kFormats.back().type : format->type;
}

std::filesystem::path partOf(const std::filesystem::path& file) {
  std::filesystem::path part = file;
  return part += kPart;
}

bool isPartName(std::string_view name) {
  return name.ends_with(kPart) && isPictureName(name.substr(0, name.size() - kPart.size()));
}

void writePicture(const std::filesystem::path& file, std::string_view picture) {
  const std::filesystem::path part = partOf(file);
  try {
    const File opened(part, O_WRONLY | O_CREAT | O_EXCL);
    if (!opened.isOpen()) fail("open");
    writeAll(opened, picture);
    if (::fsync(opened.descriptor()) != 0) fail("fsync");
    if (::rename(part.c_str(), file.c_str()) != 0) fail("rename");
    flushFolder(file.parent_path());
  } catch (const std::system_error&) {
    std::error_code ignored;
    std::filesystem::remove(part, ignored);
    throw;
  }
}

std::optional<std::string> readPicture(const std::filesystem::path& file) {
  const File opened(file, O_RDONLY);
  struct stat facts {};
  if (!opened.isOpen() || ::fstat(opened.descriptor(), &facts) != 0) return std::nullopt;
  if (!S_ISREG(facts.st_mode)) return std::nullopt;
  std::string picture(static_cast<std::size_t>(facts.st_size), '\0');
  for (std::size_t done = 0; done < picture.size();) {
    const ssize_t count = ::read(opened.descriptor(), picture.data() + done, picture.size() - done);
    if (count == 0 || (count < 0 && errno != EINTR)) return std::nullopt;
    if (count > 0) done += static_cast<std::size_t>(count);
  }
  return picture;
}

}  // namespace qn
