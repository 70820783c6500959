// An alert-stream handler of a test's own, started on the fake platform.
#pragma once

#include <string>
#include <vector>

#include "alert/event_pto.h"
#include "tests/unit/cases.h"
#include "tests/unit/golden.h"

namespace QNKAVROProtocol {

inline constexpr const char* kStreamUrl = "/KAVRO/Event/notification/alertStream";

inline std::string alarmOf(const std::string& devIndex, const std::string& eventType = "motion") {
  return R"({"EventNotificationAlert":{"devIndex":")" + devIndex + R"(","eventType":")" +
         eventType + R"("}})";
}

// What a stream gets for "json OBJECT", or for "xml CHILDREN" of the alert's element.
inline std::string part(const std::string& typeAndContent) {
  const auto [type, content] = partedAt(typeAndContent, " ");
  std::string body = content.empty() ? "" : content + "\n";
  if (type == "xml") {
    body = std::string(kDeclaration) + "<EventNotificationAlert>" + content +
           "</EventNotificationAlert>";
  }
  return "--boundary\r\nContent-Type: application/" + type +
         "; charset=\"UTF-8\"\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
         body;
}

class AlertTest : public PlatformTest {
 protected:
  AlertTest() { EXPECT_EQ(pto_.start(), 0); }
  ~AlertTest() override { pto_.stop(); }

  Outcome open(const std::string& devIndex = "1", const std::string& url = kStreamUrl) {
    return processBy(pto_, fake::http().open({QNHttpService::HTTP_GET, url}), devIndex);
  }
  // One alarm of device "1" through the pool.
  static void alarm() {
    fake::alarmBus().raise(alarmOf("1"));
    fake::runtime().runJobs();
  }
  // What the stream has got so far, after all queued jobs.
  static std::vector<std::string> parts(const Outcome& stream) {
    fake::runtime().runJobs();
    return stream.answer().parts;
  }
  std::vector<CEventPto::Session> sessions(const std::string& devIndex = "1") {
    std::vector<CEventPto::Session> found;
    pto_.getSessionByDev(found, devIndex);
    return found;
  }
  // The bus operations since the last call.
  static std::vector<std::string> busCalls() { return std::exchange(fake::alarmBus().calls, {}); }

  CEventPto pto_;
};

using Calls = std::vector<std::string>;

}  // namespace QNKAVROProtocol
