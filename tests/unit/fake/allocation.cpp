// The replaced operator new and delete: allocations that fail when a test says so. The array and
// aligned forms stay the C++ library's.
#include <cstdlib>
#include <new>

#include "tests/unit/fake/fake_platform.h"

namespace {

constexpr int kNever = -1;

thread_local int allocationsLeft = kNever;  // before the one that fails
thread_local bool failed = false;
thread_local bool nothrowFails = false;

bool failsNow() {
  if (allocationsLeft == kNever) return false;
  if (allocationsLeft-- > 0) return false;
  failed = true;
  return true;
}

void* allocate(std::size_t size) { return std::malloc(size == 0 ? 1 : size); }

}  // namespace

namespace fake {

FailAllocation::FailAllocation(int n) {
  failed = false;
  allocationsLeft = n;
}
FailAllocation::~FailAllocation() { allocationsLeft = kNever; }
bool FailAllocation::happened() const { return failed; }

FailNothrowAllocations::FailNothrowAllocations() { nothrowFails = true; }
FailNothrowAllocations::~FailNothrowAllocations() { nothrowFails = false; }

AllocationShelter::AllocationShelter() : saved_(allocationsLeft) { allocationsLeft = kNever; }
AllocationShelter::~AllocationShelter() { allocationsLeft = saved_; }

}  // namespace fake

void* operator new(std::size_t size) {
  void* memory = failsNow() ? nullptr : allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return nothrowFails || failsNow() ? nullptr : allocate(size);
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept { std::free(memory); }
