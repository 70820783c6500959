// See answer.h.
#include "gateway/http/answer.h"

#include <json/json.h>
#include <time.h>

#include <array>
#include <boost/beast/http/status.hpp>
#include <cstdio>

#include "platform/base_library.h"
#include "platform/error_codes.h"
#include "text/bytes.h"
#include "text/number.h"

namespace qn {
namespace {

struct OwnAnswerRow {
  OwnAnswer answer;
  int status;
  unsigned int errorCode;
};
constexpr OwnAnswerRow kOwnAnswers[] = {
    {OwnAnswer::Malformed, 400, ERROR_MALFORMED_REQUEST},
    {OwnAnswer::NotFound, 404, ERROR_RESOURCE_NOT_FOUND},
    {OwnAnswer::RequestTimeout, 408, ERROR_REQUEST_TIMEOUT},
    {OwnAnswer::BodyTooLarge, 413, ERROR_REQUEST_TOO_LARGE},
    {OwnAnswer::HeadTooLarge, 431, ERROR_HEAD_TOO_LARGE},
    {OwnAnswer::InternalError, 500, ERROR_INTERNAL},
    {OwnAnswer::NotImplemented, 501, ERROR_METHOD_NOT_IMPLEMENTED},
    {OwnAnswer::Overloaded, 503, ERROR_TOO_MANY_REQUESTS},
    {OwnAnswer::GatewayTimeout, 504, ERROR_DEVICE_TIMEOUT},
};
constexpr std::size_t kOwnAnswerCount = std::size(kOwnAnswers);

OwnDocument makeDocument(const OwnAnswerRow& row) {
  Json::Value document(Json::objectValue);
  int status = row.status;
  getResponseStatusByErrorNo(row.errorCode, document, status);
  return {row.status, Json::FastWriter().write(document)};
}

std::array<OwnDocument, kOwnAnswerCount> makeDocuments() {
  std::array<OwnDocument, kOwnAnswerCount> documents;
  for (const OwnAnswerRow& row : kOwnAnswers) {
    documents[static_cast<std::size_t>(row.answer)] = makeDocument(row);
  }
  return documents;
}

struct DateLine {
  time_t second = -1;
  char text[48];
  int length = 0;

  void renew(time_t now) {
    static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    tm utc{};
    gmtime_r(&now, &utc);
    length = std::snprintf(text, sizeof text, "Date: %s, %02d %s %d %02d:%02d:%02d GMT\r\n",
                           kDays[utc.tm_wday], utc.tm_mday, kMonths[utc.tm_mon], utc.tm_year + 1900,
                           utc.tm_hour, utc.tm_min, utc.tm_sec);
    second = now;
  }
};

}  // namespace

void appendStatusLine(std::string& out, int status) {
  if (status == 200) {
    constexpr std::string_view kOk = "HTTP/1.1 200 OK\r\n";
    out += kOk;
    return;
  }
  out += "HTTP/1.1 ";
  text::appendDecimal(out, status);
  out += ' ';
  const auto known = boost::beast::http::int_to_status(static_cast<unsigned>(status));
  if (known != boost::beast::http::status::unknown) {
    out += boost::beast::http::obsolete_reason(known);
  }
  out += "\r\n";
}

void appendDate(std::string& out) {
  thread_local DateLine line;
  timespec now{};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  if (now.tv_sec != line.second) line.renew(now.tv_sec);
  out.append(line.text, static_cast<std::size_t>(line.length));
}

void appendContentLength(std::string& out, std::size_t length) {
  text::appendAll(out, {"Content-Length: ", text::Decimal(length).view(), "\r\n"});
}

const OwnDocument& ownDocument(OwnAnswer answer) {
  static const auto documents = makeDocuments();
  return documents[static_cast<std::size_t>(answer)];
}

std::string ownMessage(OwnAnswer answer) {
  const OwnDocument& document = ownDocument(answer);
  std::string message;
  appendStatusLine(message, document.status);
  appendDate(message);
  message += "Content-Type: application/json\r\nConnection: close\r\n";
  if (answer == OwnAnswer::Overloaded) {
    message += "Retry-After: ";
    message += kRetryAfterSeconds;
    message += "\r\n";
  }
  appendContentLength(message, document.body.size());
  message += "\r\n";
  message += document.body;
  return message;
}

}  // namespace qn
