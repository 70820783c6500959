// Status documents: the XML ResponseStatus and its JSON form. Written by the frame and the entry.
#pragma once

#include <string>
#include <string_view>

#include "platform/xml_base.h"

namespace QNKAVROProtocol {

// What a ResponseStatus says about the request.
struct StatusText {
  std::string_view statusCode;
  std::string_view statusString;
  std::string_view subStatusCode;
};

// A child of the entered element with text, left again.
void addTextElement(QNBase::CXmlBase& xml, const char* name, std::string_view text);

// Starts a ResponseStatus with its "requestURL"; the root stays entered. Without version the root
// has no attribute.
void beginResponseStatus(QNBase::CXmlBase& xml, const std::string& url,
                         std::string_view version = {});

void addStatusText(QNBase::CXmlBase& xml, const StatusText& status);

// The platform's JSON document of an error code as text; httpStatus becomes the code's when the
// platform knows it.
std::string jsonStatusDocument(unsigned int errorCode, int& httpStatus);

}  // namespace QNKAVROProtocol
