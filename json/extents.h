// Where values stand in a JSON text, for what is changed or cut without writing it anew. Used by
// the alarm bus and the picture upload.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

namespace qn::json {

struct ObjectExtent {
  std::size_t end;  // behind its closing brace
  bool isEmpty;
};

struct RootExtent {
  std::size_t begin, end;             // of the root
  std::vector<ObjectExtent> members;  // those members of the root that are objects, in their order
};

// Of a text whose root is an object, with what may follow it; nothing for any other text. The
// nesting is the one that jsoncpp sees, which skips comments.
std::optional<RootExtent> objectExtent(std::string_view text);

// The end of the object or array that a text begins with, whatever follows it; nothing for any
// other text.
std::optional<std::size_t> valueEnd(std::string_view text);

}  // namespace qn::json
