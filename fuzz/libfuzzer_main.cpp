// libFuzzer's entry to a target.
#include <cstdint>

#include "fuzz/require.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz({reinterpret_cast<const char*>(data), size});
  return 0;
}
