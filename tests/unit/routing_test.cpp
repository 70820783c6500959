// Which requests the chain claims and what the device is asked.
#include "platform/device_cfg_bus.h"
#include "tests/unit/conversation.h"

namespace {

class Routing : public PlatformTest {};

// A device URL that ends in "?" goes on with the usual query. What no translating handler takes is
// passed through, and outside "/KAVRO/" it is nobody's.
TEST_F(Routing, ClaimsAndDeviceUrls) {
  const std::string passed = "(passed through)";
  const std::string stream = "(alert stream)";
  const std::string nobody = "(nobody)";
  const struct {
    unsigned int method;
    const char* url;
    std::string device;
    const char* body = "";
  } cases[] = {
      {0, "/KAVRO/Streaming/channels/1", "/KAVRO/Streaming/channels/101?"},
      {0, "/KAVRO/Streaming/channels/102", "/KAVRO/Streaming/channels/102?"},
      {0, "/Streaming/channels/2", "/KAVRO/Streaming/channels/201?"},
      {2, "/KAVRO/Streaming/channels/1", passed},
      {3, "/KAVRO/Streaming/channels/1", passed},
      {0, "/KAVRO/Streaming/channels/", passed},
      {0, "/KAVRO/Streaming/channels/-1", passed},
      {0, "/KAVRO/Streaming/channels/2147483648", passed},
      {0, "/KAVRO/Streaming/channels", "/KAVRO/Streaming/channels?"},
      {1, "/KAVRO/Streaming/channels", passed},
      {1, "/KAVRO/Streaming/channels/101/capabilities", passed},

      {0, "/KAVRO/System/deviceInfo", "/KAVRO/System/deviceInfo?"},
      {0, "/KAVRO/System/deviceInfo?a=b", "/KAVRO/System/deviceInfo?"},
      {1, "/KAVRO/System/deviceInfo", passed},
      {0, "/KAVRO/System/deviceInfo/", passed},
      {0, "/KAVRO/System/Video/inputs/channels", "/KAVRO/System/Video/inputs/channels?"},
      {0, "/KAVRO/ContentMgmt/Storage/hdd", "/KAVRO/System/deviceInfo?"},
      {0, "/KAVRO/Security/adminAccesses", "/KAVRO/System/deviceInfo?"},

      {0, "/KAVRO/Smart/capabilities", "/KAVRO/Smart/capabilities?"},
      {0, "/KAVRO/Smart/capabilities/SmartCap", "/KAVRO/Smart/capabilities?"},
      {0, "/KAVRO/System/IO", "/KAVRO/System/IO?"},
      {1, "/KAVRO/System/IO", passed},
      {0, "/KAVRO/System/capabilities", "/KAVRO/Smart/capabilities?"},
      {1, "/KAVRO/System/IO/outputs/3/trigger", "/KAVRO/System/IO/outputs/3/trigger?",
       "<IOPortData><outputState>high</outputState></IOPortData>"},
      {0, "/KAVRO/System/IO/outputs/3/trigger", passed},

      {0, "/KAVRO/Image/channels/1/capabilities", "/KAVRO/Streaming/channels/101?"},
      {0, "/KAVRO/Image/channels/99/capabilities", "/KAVRO/Streaming/channels/9901?"},
      {0, "/KAVRO/Image/channels/100/capabilities", "/KAVRO/Streaming/channels/10001?"},
      {0, "/KAVRO/Image/channels/102/capabilities", "/KAVRO/Streaming/channels/102?"},
      {0, "/KAVRO/Image/channels/0/capabilities", "/KAVRO/Streaming/channels/1?"},
      {0, "/KAVRO/Image/channels/2147483647/capabilities", "/KAVRO/Streaming/channels/2147483647?"},
      {1, "/KAVRO/Image/channels/1/capabilities", passed},

      {0, "/KAVRO/PTZCtrl/channels", "/KAVRO/PTZCtrl/channels?"},
      {1, "/KAVRO/PTZCtrl/channels", passed},
      {1, "/KAVRO/PTZCtrl/channels/1/continuous", "/KAVRO/PTZCtrl/channels/1/continuous?",
       "<PTZData><pan>-3</pan></PTZData>"},
      {1, "/KAVRO/PTZCtrl/channels/1/presets/4/goto", "/KAVRO/PTZCtrl/channels/1/presets/4/goto?"},
      {1, "/KAVRO/PTZCtrl/channels/1/presets/4", "/KAVRO/PTZCtrl/channels/1/presets/4?",
       "<PTZPreset><id>4</id></PTZPreset>"},
      {3, "/KAVRO/PTZCtrl/channels/1/presets/4", "/KAVRO/PTZCtrl/channels/1/presets/4?"},
      {0, "/KAVRO/PTZCtrl/channels/1/presets/4", passed},
      {1, "/KAVRO/PTZCtrl/channels/1/homeposition/goto",
       "/KAVRO/PTZCtrl/channels/1/homeposition/goto?"},

      {2, "/KAVRO/ContentMgmt/search", "/KAVRO/ContentMgmt/search?", "<CMSearchDescription/>"},
      {2, "/KAVRO/ContentMgmt/search/", "/KAVRO/ContentMgmt/search?", "<CMSearchDescription/>"},
      {0, "/KAVRO/ContentMgmt/search", passed},

      {0, "/KAVRO/Anything/else", passed},
      {1, "/KAVRO/Event/notification/alertStream", passed},
      {0, "/KAVRO/Event/notification/alertStream", stream},
      {0, "/KAVRO/Event/notification/alertStream/", passed},
      {5, "/KAVRO/System/deviceInfo", passed},
      {0, "/KAVRO/", passed},
      {0, "/NotKAVRO/System/deviceInfo", nobody},
      {0, "/kavro/System/deviceInfo", nobody},
      {0, "/KAVRO", nobody},
  };
  for (const auto& [method, url, device, body] : cases) {
    fake::reset();
    const Outcome outcome = process({method, url, body});
    if (device == nobody) {
      EXPECT_EQ(outcome.status, 404) << method << " " << url;
      EXPECT_EQ(fake::login().checks, 0) << method << " " << url;
      continue;
    }
    EXPECT_EQ(fake::login().checks, 1) << method << " " << url;
    if (device == stream) {
      EXPECT_TRUE(fake::deviceBus().seen.empty());
      EXPECT_TRUE(outcome.answer().stream);
      continue;
    }
    ASSERT_EQ(fake::deviceBus().seen.size(), 1u) << method << " " << url << outcome.body;
    const fake::BusRequest& sent = fake::deviceBus().seen[0];
    EXPECT_EQ(sent.method, method) << url;
    EXPECT_EQ(sent.url, device == passed ? std::string(url) + "?devIndex=1"
                                         : device + "format=json&devIndex=1");
  }
}

}  // namespace
