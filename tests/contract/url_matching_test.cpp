// What handlers find out from a request's URL.
#include <gtest/gtest.h>

#include "platform/http_service.h"
#include "platform/rest_protocol.h"

namespace {

class Handler final : public QNBase::CRESTfulProtocol {};

TEST(UrlMatching, ExactPath) {
  struct Case {
    const char *url, *path;
    bool matches;
  };
  const Case cases[] = {
      {"/KAVRO/System/IO", "/KAVRO/System/IO", true},
      {"/KAVRO/System/IO?", "/KAVRO/System/IO", true},
      {"/KAVRO/System/IO?a=/b?c", "/KAVRO/System/IO", true},
      {"/KAVRO/System/IO/", "/KAVRO/System/IO", false},
      {"/KAVRO/System/IO", "/KAVRO/System/IO/", false},
      {"/kavro/System/IO", "/KAVRO/System/IO", false},
      {"/KAVRO/System/I%4F", "/KAVRO/System/IO", false},
      {"/KAVRO/System", "/KAVRO/System/IO", false},
      {"x/KAVRO/System/IO", "/KAVRO/System/IO", false},
      {"", "/KAVRO/System/IO", false},
      {"", "", true},
      {"?x", "", true},
  };
  for (const Case& c : cases) EXPECT_EQ(Handler::cmpURL(c.url, c.path), c.matches) << c.url;
}

TEST(UrlMatching, PathWithNumbers) {
  struct Case {
    const char *url, *pattern;
    int count;
    bool matches;
  };
  const char* const one = "/channels/%d";
  const char* const inside = "/channels/%d/capabilities";
  const char* const two = "/channels/%d/presets/%d/goto";
  const Case cases[] = {
      {"/channels/1", one, 1, true},
      {"/channels/0", one, 1, true},
      {"/channels/0000000007", one, 1, true},
      {"/channels/2147483647", one, 1, true},
      {"/channels/2147483648", one, 1, false},
      {"/channels/9999999999", one, 1, false},
      {"/channels/00000000001", one, 1, false},
      {"/channels/18446744073709551617", one, 1, false},
      {"/channels/1?x=/y", one, 1, true},
      {"/channels/?1", one, 1, false},
      {"/channels/", one, 1, false},
      {"/channels/-1", one, 1, false},
      {"/channels/+1", one, 1, false},
      {"/channels/ 1", one, 1, false},
      {"/channels/1x", one, 1, false},
      {"/channels/0x1", one, 1, false},
      {"/channels/1/", one, 1, false},
      {"/channels/%d", one, 1, false},
      {"/channels/12", inside, 1, false},
      {"/channels/12/capabilities", inside, 1, true},
      {"/channels/12/Capabilities", inside, 1, false},
      {"/channels/12/capabilities/", inside, 1, false},
      {"/channels/1/presets/22/goto", two, 2, true},
      {"/channels/1/presets//goto", two, 2, false},
      {"/channels/1/presets/goto", two, 2, false},
      {"/channels/1/presets/2147483648/goto", two, 2, false},
      {"/channels/1/presets/22/goto", two, 1, false},
      {"/channels/1", one, 0, false},
      {"/channels", "/channels", 0, true},
      {"/channels", "/channels", 1, false},
      {"12", "%d", 1, true},
      {"12", "%d%d", 2, false},
      {"", "%d", 1, false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Handler::cmpURLWithInt(c.url, c.pattern, c.count), c.matches)
        << c.url << " " << c.pattern << " " << c.count;
  }
}

TEST(UrlMatching, QueryParameters) {
  struct Case {
    const char* url;
    bool json, chinese, device;
  };
  const Case cases[] = {
      {"/a", false, false, false},
      {"/a?", false, false, false},
      {"/a?format=json", true, false, false},
      {"/a?x=1&format=json&language=cn&devIndex=1", true, true, true},
      {"/a?devIndex", false, false, true},
      {"/a?&&devIndex=&", false, false, true},
      {"/format=json", false, false, false},
      {"/a?format=jsonp", false, false, false},
      {"/a?xformat=json", false, false, false},
      {"/a?x=format=json", false, false, false},
      {"/a?Format=json", false, false, false},
      {"/a?format=xml&format=json", true, false, false},
      {"/a?language=en&devIndexes=1", false, false, false},
  };
  Handler handler;
  for (const Case& c : cases) {
    EXPECT_EQ(handler.IsJsonURL(c.url), c.json) << c.url;
    EXPECT_EQ(handler.isLanguageCNURL(c.url), c.chinese) << c.url;
    EXPECT_EQ(handler.isDeviceURL(c.url), c.device) << c.url;
  }
}

TEST(UrlMatching, MethodNamesFollowTheServicesCodes) {
  EXPECT_STREQ(Handler::GetMethod(QNHttpService::HTTP_GET), "GET");
  EXPECT_STREQ(Handler::GetMethod(QNHttpService::HTTP_PUT), "PUT");
  EXPECT_STREQ(Handler::GetMethod(QNHttpService::HTTP_POST), "POST");
  EXPECT_STREQ(Handler::GetMethod(QNHttpService::HTTP_DELETE), "DELETE");
  EXPECT_STREQ(Handler::GetMethod(QNHttpService::HTTP_HEAD), "HEAD");
  EXPECT_STREQ(Handler::GetMethod(QNHttpService::HTTP_OPTIONS), "OPTIONS");
  EXPECT_STREQ(Handler::GetMethod(QNHttpService::HTTP_PATCH), "PATCH");
  EXPECT_STREQ(Handler::GetMethod(QNHttpService::HTTP_PATCH + 1), "");
  EXPECT_STREQ(Handler::GetMethod(255), "");
}

}  // namespace
