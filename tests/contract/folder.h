// A folder of a test's own, removed with all that is in it.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace qn {

class Folder {
 public:
  Folder() {
    std::string name = (std::filesystem::temp_directory_path() / "qn-test-XXXXXX").string();
    path_ = ::mkdtemp(name.data());
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path write(const std::string& name, std::string_view content) const {
    std::ofstream(path_ / name, std::ios::binary) << content;
    return path_ / name;
  }

 private:
  std::filesystem::path path_;
};

}  // namespace qn
