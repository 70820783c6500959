// Any text: the reader's values and places are jsoncpp's.
#include "fuzz/require.h"
#include "tests/unit/json_agreement.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Require(json_agreement::agrees(TextOf(data, size)));
  Require(json_agreement::agreesOnExtents(TextOf(data, size)));
  return 0;
}
