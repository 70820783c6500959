// Bus codes to error codes, error codes to documents.
#include "platform/wlog.h"
#include "protocol/protocol_base.h"
#include "tests/unit/conversation.h"

namespace QNKAVROProtocol {
namespace {

class ErrorMapping : public PlatformTest {};

TEST_F(ErrorMapping, EveryBusCode) {
  const struct {
    int first;
    int last;
    unsigned int code;
  } ranges[] = {
      {-2147483647 - 1, -2147483647 - 1, 0x30000014},
      {-1, -1, 0x30000014},
      {0, 0, 1},
      {1, 1, 0x60000001},
      {2, 2, 0x40001007},
      {3, 3, 0x400010EA},
      {4, 4, 0x60000001},
      {5, 5, 0x4000108D},
      {6, 6, 0x40001054},
      {7, 8, 0x60000001},
      {9, 9, 0x30000014},
      {10, 10, 0x4000118A},
      {11, 255, 0x30000014},
      {256, 256, 0x6000005F},
      {257, 257, 0x60000015},
      {258, 258, 0x400010E7},
      {259, 259, 0x400010E8},
      {260, 260, 0x6000000B},
      {261, 262, 0x60000001},
      {263, 263, 0x40000008},
      {264, 265, 0x60000001},
      {266, 271, 0x30000014},
      {272, 272, 0x60000001},
      {273, 273, 0x40001187},
      {274, 274, 0x40000006},
      {275, 275, 0x6000000F},
      {276, 511, 0x30000014},
      {512, 513, 0x60000001},
      {514, 514, 0x40001014},
      {515, 515, 0x40000006},
      {516, 516, 0x40000009},
      {517, 518, 0x40001014},
      {519, 1000, 0x30000014},
      {1028, 1028, 0x30000014},
  };
  for (const auto& [first, last, code] : ranges) {
    for (int bus = first; bus <= last; ++bus) {
      EXPECT_EQ(CProtocolBase::getPtoErrorCode(bus), code) << bus;
    }
  }
}

std::string document(const std::string& url, const std::string& status) {
  return R"(<?xml version="1.0" encoding="UTF-8"?><ResponseStatus version="2.0"><requestURL>)" +
         url + "</requestURL>" + status + "</ResponseStatus>";
}

TEST_F(ErrorMapping, SuccessHasItsOwnTexts) {
  EXPECT_EQ(CProtocolBase::getResponseByError(1, "/KAVRO/a"),
            document("/KAVRO/a",
                     "<statusCode>1</statusCode><statusString>OK</statusString>"
                     "<subStatusCode>ok</subStatusCode>"));
}

TEST_F(ErrorMapping, KnownCodeHasThePlatformsTexts) {
  EXPECT_EQ(CProtocolBase::getResponseByError(0x40000006, "/KAVRO/a"),
            document("/KAVRO/a",
                     "<statusCode>4</statusCode><statusString>Resource not found</statusString>"
                     "<subStatusCode>resourceNotFound</subStatusCode>"));
}

TEST_F(ErrorMapping, UnknownCodeHasTheUrlOnly) {
  EXPECT_EQ(CProtocolBase::getResponseByError(0x70000001, "/KAVRO/a"), document("/KAVRO/a", ""));
  EXPECT_TRUE(
      fake::loggedIn("getResponseByError", WLOG_ERROR, "[iErrorNo=1879048193] unkown error code."));
  EXPECT_TRUE(
      fake::loggedIn("getResStatusByErrorNo", WLOG_ERROR, "[error=1879048193] unkown error code"));
}

TEST_F(ErrorMapping, MarkupInTheUrlIsRemovedAndTheRestEscaped) {
  EXPECT_EQ(CProtocolBase::getResponseByError(0x70000001, "/a?<b>'\"&c=\x01\n"),
            document("/a?b&amp;c=", ""));
}

TEST_F(ErrorMapping, TextEndsAtTheLimit) {
  const struct {
    std::size_t urlLength;
    bool whole;
  } cases[] = {{15000, true}, {30000, false}};
  for (const auto& [urlLength, whole] : cases) {
    const std::string url(urlLength, 'u');
    const std::string full = document(url, "");
    const std::string text = CProtocolBase::getResponseByError(0x70000001, url);
    EXPECT_EQ(text, full.substr(0, 20960));
    EXPECT_EQ(text == full, whole);
  }
}

}  // namespace
}  // namespace QNKAVROProtocol
