// Which requests the chain claims and what the device is asked.
#include "platform/device_cfg_bus.h"
#include "tests/unit/conversation.h"

namespace {

class Routing : public PlatformTest {};

TEST_F(Routing, ClaimsAndDeviceUrls) {
  const struct {
    unsigned int method;
    const char* url;
    const char* device;  // without the query; empty: not claimed
  } cases[] = {
      {0, "/KAVRO/System/deviceInfo", "/KAVRO/System/deviceInfo"},
      {0, "/KAVRO/System/deviceInfo?a=b", "/KAVRO/System/deviceInfo"},
      {0, "/KAVRO/System/Video/inputs/channels", "/KAVRO/System/Video/inputs/channels"},
      {0, "/KAVRO/ContentMgmt/Storage/hdd", "/KAVRO/System/deviceInfo"},
      {0, "/KAVRO/Security/adminAccesses", "/KAVRO/System/deviceInfo"},
      {0, "/KAVRO/Image/channels/1/capabilities", "/KAVRO/Streaming/channels/101"},
      {0, "/KAVRO/Image/channels/99/capabilities", "/KAVRO/Streaming/channels/9901"},
      {0, "/KAVRO/Image/channels/100/capabilities", "/KAVRO/Streaming/channels/10001"},
      {0, "/KAVRO/Image/channels/101/capabilities", "/KAVRO/Streaming/channels/101"},
      {0, "/KAVRO/Image/channels/102/capabilities", "/KAVRO/Streaming/channels/102"},
      {0, "/KAVRO/Image/channels/0/capabilities", "/KAVRO/Streaming/channels/1"},
      {0, "/KAVRO/Image/channels/2147483647/capabilities", "/KAVRO/Streaming/channels/2147483647"},
      {0, "/NotKAVRO/System/deviceInfo", ""},
      {0, "/kavro/System/deviceInfo", ""},
  };
  for (const auto& [method, url, device] : cases) {
    fake::reset();
    const Outcome outcome = process({method, url});
    if (*device == '\0') {
      EXPECT_EQ(outcome.status, 404) << url;
      continue;
    }
    ASSERT_EQ(fake::deviceBus().seen.size(), 1u) << url;
    EXPECT_EQ(fake::deviceBus().seen[0].url, std::string(device) + "?format=json&devIndex=1");
    EXPECT_EQ(fake::deviceBus().seen[0].method, method);
    EXPECT_EQ(fake::deviceBus().seen[0].body, "");
  }
}

}  // namespace
