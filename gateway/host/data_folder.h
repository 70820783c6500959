// The data directory while this process uses it. Used by the host, before everything that keeps
// files there.
#pragma once

#include <filesystem>

namespace qn {

// Two gateways on one directory would take each other's unfinished uploads for the rests of a crash
// and drop each other's pictures, so the first one has it for itself. The lock goes with the
// process, however that ends; its file stays.
class DataFolder {
 public:
  // Makes the directory when it is missing and shuts everybody else out of it. Throws
  // std::runtime_error, naming it and the reason, when it cannot be made or written to or another
  // process uses it.
  explicit DataFolder(const std::filesystem::path& folder);
  ~DataFolder();
  DataFolder(const DataFolder&) = delete;
  DataFolder& operator=(const DataFolder&) = delete;

 private:
  int lock_;
};

}  // namespace qn
