// The file that the commands write: the first one that the configuration includes, held by one
// command at a time and replaced as a whole. Used by the commands.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>

namespace qn {

// Writes the content beside the file, flushes it and puts it in the file's place, with its mode and
// owner; flushes the folder. Whoever reads the file at any moment, or after a crash, has the old
// content or the new one. Throws std::system_error and leaves the file alone when that fails. One
// caller at a time; blocks for the disk.
void replaceFile(const std::filesystem::path& file, const std::string& content);

// Keeps other commands out while it lives.
class AccountsFile {
 public:
  static constexpr std::chrono::seconds kWait{10};  // for another command

  // `like`: whose mode and owner the file gets when it is not there yet. Throws std::runtime_error
  // with a text for the operator.
  AccountsFile(const std::filesystem::path& file, const std::filesystem::path& like);
  // An empty file that it has made is removed.
  ~AccountsFile();
  AccountsFile(const AccountsFile&) = delete;
  AccountsFile& operator=(const AccountsFile&) = delete;

  const std::filesystem::path& path() const { return path_; }
  // Throws std::runtime_error.
  std::string content() const;
  void replace(const std::string& content);

 private:
  void make(const std::filesystem::path& like);
  bool open();

  const std::filesystem::path path_;  // no symbolic link
  int file_ = -1;
  bool made_ = false;
};

}  // namespace qn
