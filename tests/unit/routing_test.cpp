// Which requests the chain claims and what the device is asked.
#include "tests/unit/cases.h"

namespace {

class Routing : public PlatformTest {};

TEST_F(Routing, ClaimsAndDeviceUrls) {
  for (const auto& [head, given, device] : casesOf("routing.txt")) {
    fake::reset();
    const fake::Request request = requestOf(given);
    const Outcome outcome = process(request);
    EXPECT_EQ(fake::login().checks, device == "(nobody)" ? 0 : 1) << given;
    EXPECT_EQ(outcome.status, device == "(nobody)" ? 404 : 200) << given;
    EXPECT_EQ(outcome.answer().stream, device == "(alert stream)") << given;
    const bool asked = device[0] == '/' || device == "(passed through)";
    ASSERT_EQ(fake::deviceBus().seen.size(), asked ? 1u : 0u) << given << outcome.body;
    if (!asked) continue;
    const fake::BusRequest& sent = fake::deviceBus().seen[0];
    EXPECT_EQ(sent.method, request.method) << given;
    EXPECT_EQ(sent.url,
              device[0] == '/' ? device + "format=json&devIndex=1" : request.url + "?devIndex=1");
  }
}

}  // namespace
