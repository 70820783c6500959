// Which text XML can hold: checks and repairs for the XML document, which calls nothing else here.
#pragma once

#include <string>
#include <string_view>

namespace qn {

// Valid UTF-8 without the characters that XML 1.0 forbids.
bool IsXmlText(std::string_view text);

// Appends text to out, without forbidden characters, each invalid UTF-8 sequence as one U+FFFD.
void AppendXmlText(std::string_view text, std::string& out);

// Replaces the predefined entities and character references by what they stand for. False for any
// other entity, for a bare "&" and for a reference to a character that XML forbids.
bool DecodeXmlReferences(std::string_view raw, std::string& decoded);

}  // namespace qn
