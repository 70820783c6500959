// What the bus reads from a device URL before it goes out as it stands. Called for each request.
#pragma once

#include <string>
#include <string_view>

namespace qn::devicebus {

// The decoded value of the last devIndex parameter; names are compared decoded too, so that no
// spelling of an earlier or later parameter names another device. Empty when there is none.
std::string namedDevice(std::string_view url);

// Whether the URL can stand in a request line: a path, without blanks, control characters and a
// fragment (which would hide the devIndex behind it), and without ".." in any spelling, which could
// lead from the base path of one device to another's.
bool isRequestTarget(std::string_view url);

}  // namespace qn::devicebus
