// The protocol module's three entry points, exported unmangled from libQNKAVROProtocol.so. The
// gateway's HTTP service loads the library, calls Init once, HTTPProcess for every request that it
// does not serve itself, and Uninit once.
#pragma once

#include <string>

#include "platform/http_service.h"

extern "C" {

// Starts the alert-stream machinery. Always returns 1. Call once, before requests are served.
__attribute__((visibility("default"))) int QN_Protocol_Init();

// Stops the alert-stream machinery; the bus threads may still deliver replies of requests in
// flight afterwards, so stop the device-configuration bus before unloading the library.
__attribute__((visibility("default"))) int QN_Protocol_Uninit();

// Handles one request; thread-safe. Returns the HTTP status to send with `body`.
//   bodyIsXml   out: 1 when the body is XML, 0 when it is JSON
//   asyncReply  in: 0. Out: 1 when the answer is sent through the exchange, now or later; the
//               service then sends nothing of its own
// An exception of the system (no memory) propagates: nothing is in flight then and the service
// answers.
// Usually returns at once. The audio channel list and face pictures block: see docs/threads.md.
__attribute__((visibility("default"))) int QN_Protocol_HTTPProcess(
    int& bodyIsXml, std::string& body, int& asyncReply, const QNHttpService::stHttpRes& request);
}
