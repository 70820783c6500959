// Text inside XML: what may stand there, how it is written and read.
#pragma once

#include <string>
#include <string_view>

namespace qn::text {

// Valid UTF-8 without the characters that XML 1.0 forbids.
bool isXmlText(std::string_view text);

enum class XmlPlace { Text, Attribute };

// Appends text as it is written in an element's text or in an attribute between double quotes:
// forbidden characters left out, each invalid UTF-8 sequence as one U+FFFD, and what a reader would
// take for markup or change (carriage returns; in attributes all blanks but the space) as
// references.
void appendEscapedXml(std::string_view text, XmlPlace place, std::string& out);

// True only for text that stands in an element as it is: printable ASCII of which nothing is
// escaped.
bool isPlainXml(std::string_view text);

// The reverse: appends raw with the predefined entities and the character references replaced by
// what they stand for. False for any other entity, for a bare "&" and for a reference to a
// character that XML forbids.
bool appendDecodedXml(std::string_view raw, std::string& out);

}  // namespace qn::text
