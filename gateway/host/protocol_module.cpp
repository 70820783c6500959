// See protocol_module.h.
#include "gateway/host/protocol_module.h"

#include <dlfcn.h>

#include <stdexcept>

namespace qn {
namespace {

template <class Function>
Function bind(void* library, const char* name) {
  void* const symbol = dlsym(library, name);
  if (!symbol)
    throw std::runtime_error("the protocol module has no " + std::string(name) +
                             "; --module must name a libQNKAVROProtocol.so");
  return reinterpret_cast<Function>(symbol);
}

}  // namespace

ProtocolModule::ProtocolModule(const std::filesystem::path& file) {
  void* const library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (!library) {
    throw std::runtime_error(std::string("cannot load the protocol module: ") + dlerror() +
                             "; --module FILE names it where it is not installed with the "
                             "program");
  }
  init_ = bind<Plain>(library, "QN_Protocol_Init");
  uninit_ = bind<Plain>(library, "QN_Protocol_Uninit");
  process_ = bind<Process>(library, "QN_Protocol_HTTPProcess");
}

}  // namespace qn
