// The files of the operator's page, compiled in. Served by the admin listener.
#pragma once

#include <string_view>

namespace qn {

extern const std::string_view kPageHtml;
extern const std::string_view kPageCss;
extern const std::string_view kPageJs;

}  // namespace qn
