// JSON texts by jsoncpp, whose reading of a text is the one that counts, and JSON texts made
// without a value. Any thread.
#pragma once

#include <json/json.h>

#include <string>
#include <string_view>

namespace qn::json {

// False for a text that no reader needs to see: one that begins like no value (a picture, XML), and
// one of more than a million commas, which would take a hundred times its size as values.
bool mayBeJson(std::string_view text);

// False for a text that is no JSON or not mayBeJson(), for one of more than 300,000 values, and for
// one nested deeper than the library allows (1000); `value` is unspecified then. Any JSON value may
// be the root; comments are skipped; what follows the root is ignored; of two members with one name
// the last counts. Throws nothing but std::bad_alloc.
bool parseJson(std::string_view text, Json::Value& value);

// Compact text with a line feed at its end; members ascend by name.
std::string writeJson(const Json::Value& value);

// Appends a text as writeJson() writes it, quotes included. The text holds no NUL.
void appendQuoted(std::string& out, std::string_view text);

}  // namespace qn::json
