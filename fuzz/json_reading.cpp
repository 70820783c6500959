// Any text: the reader's values and places are jsoncpp's.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "tests/unit/json_agreement.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (!json_agreement::agrees(text) || !json_agreement::agreesOnExtents(text)) std::abort();
  return 0;
}
