// The device side's URLs. Used by every handler that translates a request.
#pragma once

#include <string>
#include <string_view>

namespace QNKAVROProtocol {

// path?format=json&devIndex=<devIndex>, at most 2047 characters.
std::string deviceJsonUrl(std::string_view path, std::string_view devIndex);

}  // namespace QNKAVROProtocol
