// The device side's URLs. Used by every handler that translates a request.
#pragma once

#include <string>
#include <string_view>

namespace QNKAVROProtocol {

// Both at most 2047 characters: path?devIndex=<devIndex>, and the same with format=json before it.
std::string deviceUrl(std::string_view path, std::string_view devIndex);
std::string deviceJsonUrl(std::string_view path, std::string_view devIndex);

}  // namespace QNKAVROProtocol
