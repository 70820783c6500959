#include "gateway/base/xml_memory.h"

#include <malloc.h>

#include <cstddef>
#include <cstdlib>
#include <pugixml.hpp>
#include <utility>

namespace {

// A page and what pugixml puts around it; larger blocks are texts and go straight back.
constexpr std::size_t kLeast = 32 * 1024;
constexpr std::size_t kMost = 48 * 1024;

struct KeptPage {
  void* page = nullptr;
  std::size_t size = 0;
  ~KeptPage() { std::free(std::exchange(page, nullptr)); }
};

KeptPage& keptPage() {
  thread_local KeptPage kept;
  return kept;
}

void* allocate(std::size_t size) {
  KeptPage& kept = keptPage();
  if (kept.page != nullptr && size >= kLeast && size <= kept.size) {
    return std::exchange(kept.page, nullptr);
  }
  return std::malloc(size);
}

void release(void* block) {
  KeptPage& kept = keptPage();
  const std::size_t size = block == nullptr ? 0 : malloc_usable_size(block);
  if (kept.page == nullptr && size >= kLeast && size <= kMost) {
    kept.page = block;
    kept.size = size;
  } else {
    std::free(block);
  }
}

}  // namespace

bool qn::keepXmlPages() {
  pugi::set_memory_management_functions(allocate, release);
  return true;
}
