// The picture that a snapshot shows.
#pragma once

#include <string>

namespace subdevice {

// A small PNG; every variant is another picture.
std::string testPicture(unsigned variant);

}  // namespace subdevice
