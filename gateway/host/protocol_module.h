// The protocol module as a loaded library. Used by the host only.
#pragma once

#include <filesystem>
#include <string>

#include "platform/http_service.h"

namespace qn {

// Binds all three entry points at construction, so a library that lacks one is refused as a whole;
// throws std::runtime_error with the loader's reason. The library is never unloaded: replies may
// still be under way through its code when the process ends.
class ProtocolModule {
 public:
  using Process = int (*)(int& bodyIsXml, std::string& body, int& asyncReply,
                          const QNHttpService::stHttpRes& request);

  explicit ProtocolModule(const std::filesystem::path& file);

  void init() const { init_(); }
  void uninit() const { uninit_(); }
  Process process() const { return process_; }

 private:
  using Plain = int (*)();

  Plain init_;
  Plain uninit_;
  Process process_;
};

}  // namespace qn
