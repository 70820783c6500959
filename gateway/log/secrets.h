// Keeps secrets and whole documents out of the log. Called by log.cpp for every line written.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qn {

inline constexpr std::string_view kHiddenValue = "***";
inline constexpr std::size_t kLoggedDocumentBytes = 256;

// The text with kHiddenValue for the value of every JSON member, XML element, attribute, query
// parameter and Authorization header whose name says that it is a secret. What was cut off at the
// text's end does not matter; JSON inside a JSON string is seen too.
std::string withoutSecrets(std::string_view text);

// Whether a value of this name is a secret: passwords, pins, secrets, tokens, credentials, keys,
// and the addresses of pictures, which nobody else has to know.
bool isSecretName(std::string_view name);

// A JSON or XML document inside the text has at most kLoggedDocumentBytes; what stands around it
// stays.
std::string withShortDocument(std::string text);

}  // namespace qn
