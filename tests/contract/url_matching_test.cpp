// What handlers find out from a request's URL.
#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "platform/http_service.h"
#include "platform/rest_protocol.h"

namespace {

class Handler final : public QNBase::CRESTfulProtocol {};

TEST(UrlMatching, ExactPath) {
  const char* const path = "/KAVRO/System/IO";
  for (const char* url : {"/KAVRO/System/IO", "/KAVRO/System/IO?", "/KAVRO/System/IO?a=/b?c"}) {
    EXPECT_TRUE(Handler::cmpURL(url, path)) << url;
  }
  for (const char* url : {"/KAVRO/System/IO/", "/kavro/System/IO", "/KAVRO/System/I%4F",
                          "/KAVRO/System", "x/KAVRO/System/IO", ""}) {
    EXPECT_FALSE(Handler::cmpURL(url, path)) << url;
  }
  EXPECT_FALSE(Handler::cmpURL(path, "/KAVRO/System/IO/"));
  EXPECT_TRUE(Handler::cmpURL("", "") && Handler::cmpURL("?x", ""));
}

TEST(UrlMatching, PathWithNumbers) {
  const struct {
    const char* pattern;
    int count;
    std::vector<const char*> matching, others;
  } cases[] = {
      {"/channels/%d",
       1,
       {"/channels/1", "/channels/0", "/channels/0000000007", "/channels/2147483647",
        "/channels/1?x=/y"},
       {"/channels/2147483648", "/channels/9999999999", "/channels/00000000001", "/channels/?1",
        "/channels/18446744073709551617", "/channels/", "/channels/-1", "/channels/+1",
        "/channels/ 1", "/channels/1x", "/channels/0x1", "/channels/1/", "/channels/%d"}},
      {"/channels/%d/capabilities",
       1,
       {"/channels/12/capabilities"},
       {"/channels/12", "/channels/12/Capabilities", "/channels/12/capabilities/"}},
      {"/channels/%d/presets/%d/goto",
       2,
       {"/channels/1/presets/22/goto"},
       {"/channels/1/presets//goto", "/channels/1/presets/goto",
        "/channels/1/presets/2147483648/goto"}},
      {"/channels/%d/presets/%d/goto", 1, {}, {"/channels/1/presets/22/goto"}},
      {"/channels/%d", 0, {}, {"/channels/1"}},
      {"/channels", 0, {"/channels"}, {}},
      {"/channels", 1, {}, {"/channels"}},
      {"%d", 1, {"12"}, {""}},
      {"%d%d", 2, {}, {"12"}},
  };
  for (const auto& [pattern, count, matching, others] : cases) {
    for (const char* url : matching) {
      EXPECT_TRUE(Handler::cmpURLWithInt(url, pattern, count)) << url << " " << pattern;
    }
    for (const char* url : others) {
      EXPECT_FALSE(Handler::cmpURLWithInt(url, pattern, count)) << url << " " << pattern;
    }
  }
}

TEST(UrlMatching, QueryParameters) {
  const std::tuple<const char*, bool, bool, bool> cases[] = {
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
  for (const auto& [url, json, chinese, device] : cases) {
    EXPECT_EQ(handler.IsJsonURL(url), json) << url;
    EXPECT_EQ(handler.isLanguageCNURL(url), chinese) << url;
    EXPECT_EQ(handler.isDeviceURL(url), device) << url;
  }
}

TEST(UrlMatching, MethodNamesFollowTheServicesCodes) {
  unsigned int method = QNHttpService::HTTP_GET;
  for (const char* name : {"GET", "PUT", "POST", "DELETE", "HEAD", "OPTIONS", "PATCH", ""}) {
    EXPECT_STREQ(Handler::GetMethod(method++), name);
  }
  EXPECT_STREQ(Handler::GetMethod(255), "");
}

}  // namespace
