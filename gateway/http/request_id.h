// The id of a request, by which one can be followed from the client through the log to the device.
// Made by the exchange.
#pragma once

#include <string>
#include <string_view>

namespace qn {

inline constexpr std::size_t kRequestIdMax = 64;

// Whether a header line of this name may hold it.
bool namesRequest(std::string_view name);

// The client's X-Request-Id, if it has 1 to kRequestIdMax letters, digits and "-._"; else the trace
// id of its traceparent; else one of our own. `fields`: the request's header lines.
std::string requestIdOf(std::string_view fields);

}  // namespace qn
