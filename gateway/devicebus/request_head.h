// Writes a request's head. Called by Lane for each sending.
#pragma once

#include <string>
#include <string_view>

#include "gateway/devicebus/bus_request.h"

namespace qn::devicebus {

// The path and query as they go out, behind the base path of the device's URL.
void appendTarget(std::string& text, const Device& device, const BusRequest& request);

// Replaces `head`. `authorization` may be empty.
void writeRequestHead(std::string& head, const Device& device, const BusRequest& request,
                      std::string_view authorization);

}  // namespace qn::devicebus
