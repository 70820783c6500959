// Any text: the reader's values and places are jsoncpp's.
#include "fuzz/require.h"
#include "tests/unit/json_agreement.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = TextOf(data, size);
  Require(json_agreement::agrees(text) && json_agreement::agreesOnExtents(text));
  return 0;
}
