// Free functions of the gateway's base libraries: the status table, text and time helpers. Any
// thread; none blocks unless stated. The reference implementation is gateway/base.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

// Fills the status document of an error code: integer "statusCode" (the code's class, its top four
// bits; 1 for success), "statusString", "subStatusCode", integer "errorCode"; httpStatus becomes
// the code's. Returns false, and changes nothing, for a code that is not in the table.
bool getResponseStatusByErrorNo(unsigned int errorCode, Json::Value& document, int& httpStatus);

// The HTTP status of a code; codes outside the table by their class: 0 and 1 give 200, 2 gives 503,
// 3 gives 500, 4 gives 403, 5 and 6 give 400, others 500.
int getHttpStatusCodeByErrorNo(unsigned int errorCode);

// The text without < > " ' and control characters.
std::string StringEraseXssInvalidChar(const std::string& text);

// Local time with its offset, as 2026-01-31T23:59:59+01:00.
std::string getISO8601Time();
// The same, shifted by `offsetSeconds`.
std::string GetCurTime8601(std::string& text, int offsetSeconds);

// The bytes that follow the JSON object or array at the start of body, without blanks between them:
// the picture part of a face-library request. Empty when body does not start with one. `jsonText`
// is the value as written by the caller; it may differ from the body's in blanks and escapes.
// Returns the number of bytes.
int getBinPart(std::string& picture, const char* body, int length, const std::string& jsonText);

// The gateway's own process ids; 0 on success. From the driver manager.
int DriverCif_GetProcessPid(std::vector<int>& pids);
// Non-zero when a process outside `pids` listens on the TCP port at the address.
// May wait for the kernel for a moment. `tcp` is always 1.
int CheckPortOccupy(const std::vector<int>& pids, const char* address, int port, int tcp);
