// Where CNetworkCfg::uploadFacetoPss sends pictures. The picture store installs itself here.
#pragma once

#include <functional>
#include <string>

namespace qn {

// As CNetworkCfg::uploadFacetoPss; any thread, several at once.
using PictureUploader = std::function<bool(
    int& errorOut, std::string& urlOut, const std::string& picture, const std::string& clientUrl)>;

// Waits for running uploads, so that the former uploader may then be destroyed. An empty one makes
// uploads fail with error 0, as they do before the first call.
void setPictureUploader(PictureUploader uploader);

}  // namespace qn
