// The address of a recording: from the device's own form to the tracks that clients know.
#pragma once

#include <string>
#include <string_view>

namespace QNKAVROProtocol {

// Rewrites scheme://address.../dac.../camera/<36 characters><channel>/MAIN/...?query (or /SUB/, or
// /SUB1/) to scheme://address.../KAVRO/Streaming/tracks/<channel and stream>?query. A camera part
// of 36 characters or fewer leaves the whole URI as it is. Returns 1, or 0 with `out` empty, or
// untouched for a URI without "/dac".
int getPlaybackURI(std::string& out, std::string_view deviceUri);

}  // namespace QNKAVROProtocol
