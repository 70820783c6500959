// See protocol_module.h.
#include "gateway/host/protocol_module.h"

#include <dlfcn.h>

#include <stdexcept>
#include <string>

namespace qn {
namespace {

template <class Function>
void bind(void* library, const char* name, Function& function) {
  void* const symbol = dlsym(library, name);
  if (!symbol)
    throw std::runtime_error("the protocol module has no " + std::string(name) +
                             "; --module must name a libQNKAVROProtocol.so");
  function = reinterpret_cast<Function>(symbol);
}

GatewayParts::Module loadedModule(const std::filesystem::path& file) {
  void* const library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (!library) {
    throw std::runtime_error(std::string("cannot load the protocol module: ") + dlerror() +
                             "; --module FILE names it where it is not installed with the "
                             "program");
  }
  GatewayParts::Module module;
  bind(library, "QN_Protocol_Init", module.init);
  bind(library, "QN_Protocol_Uninit", module.uninit);
  bind(library, "QN_Protocol_HTTPProcess", module.process);
  return module;
}

}  // namespace

GatewayParts::Module protocolModule(const GatewayParts& parts) {
  const auto& [init, uninit, process] = parts.module;
  if (init && uninit && process) return parts.module;
  if (!init && !uninit && !process) return loadedModule(parts.moduleFile);
  throw std::logic_error("a protocol module has three functions: all of them or none are given");
}

}  // namespace qn
