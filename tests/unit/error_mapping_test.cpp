// Bus codes to error codes, error codes to documents.
#include <map>

#include "platform/wlog.h"
#include "protocol/protocol_base.h"
#include "tests/unit/cases.h"
#include "tests/unit/golden.h"

namespace QNKAVROProtocol {
namespace {

class ErrorMapping : public PlatformTest {};

TEST_F(ErrorMapping, EveryBusCode) {
  std::map<int, unsigned int> codes;
  for (const auto& [head, code, buses] : casesOf("bus_codes.txt")) {
    std::istringstream numbers(buses);
    for (int bus = 0; numbers >> bus;) codes[bus] = std::stoul(code, nullptr, 16);
  }
  for (int bus = -1; bus <= 1100; ++bus) {
    EXPECT_EQ(CProtocolBase::getPtoErrorCode(bus), codes.contains(bus) ? codes[bus] : 0x30000014)
        << bus;
  }
  EXPECT_EQ(CProtocolBase::getPtoErrorCode(-2147483647 - 1), 0x30000014u);
}

std::string document(const std::string& url, const std::string& status) {
  return R"(<?xml version="1.0" encoding="UTF-8"?><ResponseStatus version="2.0"><requestURL>)" +
         url + "</requestURL>" + status + "</ResponseStatus>";
}

TEST_F(ErrorMapping, DocumentsOfCodes) {
  const std::tuple<int, std::string, std::string> cases[] = {
      {1, "/KAVRO/a",
       document("/KAVRO/a",
                "<statusCode>1</statusCode><statusString>OK</statusString>"
                "<subStatusCode>ok</subStatusCode>")},
      {0x70000001, "/KAVRO/a", document("/KAVRO/a", "")},
      // Markup in the URL is removed and the rest escaped.
      {0x70000001, "/a?<b>'\"&c=\x01\n", document("/a?b&amp;c=", "")},
  };
  for (const auto& [code, url, expected] : cases) {
    EXPECT_EQ(CProtocolBase::getResponseByError(code, url), expected);
  }
  const std::string known = CProtocolBase::getResponseByError(0x40000006, "/KAVRO/a");
  EXPECT_EQ(inside("statusCode", known), "4");
  EXPECT_EQ(inside("subStatusCode", known), "resourceNotFound");
  EXPECT_TRUE(
      fake::loggedIn("getResponseByError", WLOG_ERROR, "[iErrorNo=1879048193] unkown error code."));
  EXPECT_TRUE(
      fake::loggedIn("getResStatusByErrorNo", WLOG_ERROR, "[error=1879048193] unkown error code"));
}

TEST_F(ErrorMapping, TextEndsAtTheLimit) {
  for (const std::size_t length : {15000, 30000}) {
    const std::string url(length, 'u');
    const std::string text = CProtocolBase::getResponseByError(0x70000001, url);
    EXPECT_EQ(text, document(url, "").substr(0, 20960));
  }
}

}  // namespace
}  // namespace QNKAVROProtocol
