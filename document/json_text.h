// JSON texts to values and back, with the library's exceptions and costs kept in one place. Called
// by the pipeline, the pass-through and the converters. Any thread.
#pragma once

#include <json/json.h>

#include <string>
#include <string_view>

namespace QNKAVROProtocol {

// False for a text that is no JSON, for one nested deeper than the library allows (1000) and for
// one of more than a million values, which would take a hundred times its size; `value` is
// unspecified then. Any JSON value may be the root; comments are skipped; what follows the root is
// ignored. Throws nothing but std::bad_alloc.
bool parseJson(std::string_view text, Json::Value& value);

// Compact text with a line feed at its end.
std::string writeJson(const Json::Value& value);

}  // namespace QNKAVROProtocol
