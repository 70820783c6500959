// What a sub-device's reply says about success, and its way to the log and to the client. Used by
// the translating pipeline and the pass-through.
#pragma once

#include <string_view>

#include "json/value.h"
#include "platform/http_service.h"

namespace QNKAVROProtocol {

// The HTTP status of a reply: "errorCode" decides; "statusCode" counts when there is none or when
// it stands for success. Members of other kinds than integer count as absent; 200 without any.
int statusOfJsonReply(const qn::json::Value& reply);
// The same for an XML ResponseStatus, 200 for anything else. Its elements are searched forward, so
// a "statusCode" before the "errorCode" is not seen.
int statusOfXmlReply(std::string_view reply);

// The line of every reply, under its callback's name. Pictures and other binaries stay out of it.
void logReply(const char* callback, std::string_view reply);
// Answers the client with what became of a reply.
void sendReply(QNHttpService::CHttpExchange& exchange, int status, bool isXml,
               std::string_view body);

}  // namespace QNKAVROProtocol
