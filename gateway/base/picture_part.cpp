// getBinPart: where the JSON part of a face-library body ends and the picture begins.
#include "json/extents.h"
#include "platform/base_library.h"
#include "text/ascii.h"

int getBinPart(std::string& picture, const char* body, int length,
               [[maybe_unused]] const std::string& jsonText) {
  picture.clear();
  if (body == nullptr || length <= 0) return 0;
  const std::string_view whole(body, static_cast<std::size_t>(length));
  const auto end = qn::json::valueEnd(whole);
  if (!end) return 0;
  // The JSON part may end in a line break of its own; no picture format begins with a blank.
  picture = qn::text::trimStart(whole.substr(*end));
  return static_cast<int>(picture.size());
}
