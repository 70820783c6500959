// Bus codes to error codes, error codes to documents.
#include <map>

#include "platform/wlog.h"
#include "protocol/protocol_base.h"
#include "tests/unit/cases.h"

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

TEST_F(ErrorMapping, KnownCodesHaveTheirTexts) {
  EXPECT_EQ(CProtocolBase::getResponseByError(1, "/KAVRO/a"),
            document("/KAVRO/a",
                     "<statusCode>1</statusCode><statusString>OK</statusString>"
                     "<subStatusCode>ok</subStatusCode>"));
  const std::string known = CProtocolBase::getResponseByError(0x40000006, "/KAVRO/a");
  EXPECT_TRUE(known.starts_with(R"(<?xml version="1.0" encoding="UTF-8"?><ResponseStatus version=)"
                                R"("2.0"><requestURL>/KAVRO/a</requestURL><statusCode>4<)"))
      << known;
  EXPECT_NE(known.find("<subStatusCode>resourceNotFound</subStatusCode>"), known.npos) << known;
}

TEST_F(ErrorMapping, UnknownCodeHasTheUrlOnly) {
  EXPECT_EQ(CProtocolBase::getResponseByError(0x70000001, "/KAVRO/a"), document("/KAVRO/a", ""));
  EXPECT_EQ(CProtocolBase::getResponseByError(0x70000001, "/a?<b>'\"&c=\x01\n"),
            document("/a?b&amp;c=", ""))
      << "markup in the URL is removed and the rest escaped";
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
