// See libpq.h.
#include "gateway/archive/libpq.h"

#include <dlfcn.h>

#include <stdexcept>
#include <string>

namespace qn {
namespace {

constexpr char kFile[] = "libpq.so.5";

void* orFail(void* found) {
  if (found) return found;
  throw std::runtime_error(
      std::string("storage.operation_log needs PostgreSQL's client library (package libpq5): ") +
      dlerror());
}

}  // namespace

const Libpq& Libpq::loaded() {
  static const Libpq library;
  return library;
}

Libpq::Libpq() : library_(orFail(dlopen(kFile, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE))) {}

Libpq::Symbol Libpq::symbol(const char* name) const { return {orFail(dlsym(library_, name))}; }

}  // namespace qn
