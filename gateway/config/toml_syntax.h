// The configuration file as TOML, line by line where it is broken. Used by configuration_file.
#pragma once

#include <toml++/toml.h>

#include <memory>
#include <string>
#include <string_view>

#include "gateway/config/findings.h"

namespace qn {

// `file`: the name of one that is included, for its places; null for the file itself.
// All that can be read; what cannot is found with its place. A line with an error is left out and
// the rest is read; behind an error inside a value of several lines nothing is, since where that
// ends is anybody's guess.
toml::table parseToml(std::string_view content, Findings& findings,
                      const std::shared_ptr<const std::string>& file = {});

// Whether this section stands for a head that could not be read.
bool stoodForUnreadable(std::string_view section);

}  // namespace qn
