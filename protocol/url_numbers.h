// Numbers out of the URLs that handlers claim with CRESTfulProtocol::cmpURLWithInt.
#pragma once

#include <span>
#include <string_view>

namespace QNKAVROProtocol {

// Reads the values of a pattern's "%d" placeholders in order. False, and all numbers 0, when the
// URL does not match the pattern or the pattern has another number of placeholders.
bool readUrlNumbers(std::string_view url, std::string_view pattern, std::span<int> numbers);

}  // namespace QNKAVROProtocol
