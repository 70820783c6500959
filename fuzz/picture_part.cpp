// Any face-library body: the picture is its end, and a body that begins with JSON keeps its
// picture.
#include <string>

#include "fuzz/require.h"
#include "platform/base_library.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string body(reinterpret_cast<const char*>(data), size);
  std::string picture;
  const int length = getBinPart(picture, body.data(), static_cast<int>(body.size()), "");
  Require(static_cast<std::size_t>(length) == picture.size() && body.ends_with(picture));

  const std::string framed = "{\"a\":[\"}\\\"\"]}\xFF" + body;
  Require(getBinPart(picture, framed.data(), static_cast<int>(framed.size()), "") ==
          static_cast<int>(size) + 1);
  return 0;
}
