// Alarms as XML: a pair written by hand, and the rules that their tables do not show at a glance.
#include "alert/event_pto.h"
#include "json/reader.h"
#include "tests/unit/golden.h"

namespace QNKAVROProtocol {
namespace {

// Nothing when the alarm does not fit. The document and its text must agree.
std::optional<std::string> converted(const std::string& alarm) {
  QNBase::CXmlBase xml;
  xml.CreateDeclaration("1.0", "UTF-8");
  xml.CreateRoot("EventNotificationAlert");
  const bool fits = CEventPto::convertAlarmData(parsed(alarm), xml) == 1;
  std::string text;
  EXPECT_EQ(CEventPto::alarmDocument(text, qn::json::Reading(alarm).root()), fits) << alarm;
  if (!fits) return std::nullopt;
  EXPECT_EQ(text, xml.GetChildren()) << alarm;
  return text;
}

std::optional<std::string> convertedAlert(const std::string& alert) {
  return converted(R"({"EventNotificationAlert":)" + alert + "}");
}

TEST(AlarmDocument, Golden) {
  const auto xml = converted(golden("alarm.json"));
  ASSERT_TRUE(xml);
  EXPECT_EQ(flat(*xml), flat(golden("alarm.xml")));
}

TEST(AlarmDocument, EveryMemberOfAnotherKindDropsTheAlarm) {
  const Json::Value alarm = parsed(golden("alarm.json"));
  const std::string region = "EventNotificationAlert.DetectionRegionList.0.DetectionRegionEntry";
  for (const char* member :
       {"EventNotificationAlert.channelID", "EventNotificationAlert.dateTime",
        "EventNotificationAlert.activePostCount", "EventNotificationAlert.eventType",
        "EventNotificationAlert.eventState", "EventNotificationAlert.eventDescription",
        "EventNotificationAlert.inputIOPortID", "EventNotificationAlert.channelName",
        "EventNotificationAlert.deviceID", "EventNotificationAlert.AudioExceptionDetection",
        "EventNotificationAlert.AudioExceptionDetection.alarmType",
        "EventNotificationAlert.AudioExceptionDetection.audioDecibel"}) {
    EXPECT_FALSE(converted(with(alarm, member, true))) << member;
    EXPECT_TRUE(converted(without(alarm, member))) << member;
  }
  for (const char* member : {"", ".regionID", ".sensitivityLevel", ".detectionTarget",
                             ".TargetRect", ".TargetRect.X", ".TargetRect.Y", ".TargetRect.width",
                             ".TargetRect.height", ".RegionCoordinatesList.0.RegionCoordinates",
                             ".RegionCoordinatesList.0.RegionCoordinates.positionX",
                             ".RegionCoordinatesList.0.RegionCoordinates.positionY"}) {
    EXPECT_FALSE(converted(with(alarm, region + member, true))) << member;
    EXPECT_TRUE(converted(without(alarm, region + member))) << member;
  }
}

TEST(AlarmDocument, OddRules) {
  const std::string root = std::string(kDeclaration) + "<EventNotificationAlert>";
  // kFails: the alarm is dropped.
  const std::pair<const char*, std::string> cases[] = {
      {R"({"eventType":"a","devIndex":"1"})", "<eventType>a</eventType>"},
      {R"({"eventType":"a","deviceID":7})", kFails},
      {R"({"eventType":"a","activePostCount":"1"})", kFails},
      {R"({"activePostCount":4294967296})", kFails},
      {R"({"activePostCount":1.5})", kFails},
      {R"({"activePostCount":-7})", "<activePostCount>-7</activePostCount>"},
      {R"({"channelID":""})", "<channelID></channelID>"},
      {R"({"DetectionRegionList":{}})", "<DetectionRegionList></DetectionRegionList>"},
      {R"({"DetectionRegionList":[]})", "<DetectionRegionList></DetectionRegionList>"},
      {R"({"DetectionRegionList":null})", "<DetectionRegionList></DetectionRegionList>"},
      {R"({"DetectionRegionList":[7,{"DetectionRegionEntry":{"regionID":"b"}}]})",
       "<DetectionRegionList></DetectionRegionList>"},
      {R"({"DetectionRegionList":[{"DetectionRegionEntry":{"regionID":"a"}},7,null]})",
       "<DetectionRegionList><DetectionRegionEntry><regionID>a</regionID></DetectionRegionEntry>"
       "<DetectionRegionEntry><regionID>a</regionID></DetectionRegionEntry>"
       "<DetectionRegionEntry><regionID>a</regionID></DetectionRegionEntry></DetectionRegionList>"},
      {R"({"DetectionRegionList":[{"DetectionRegionEntry":{"regionID":"a"}},
                                  {"DetectionRegionEntry":{"regionID":7}}]})",
       "<DetectionRegionList><DetectionRegionEntry><regionID>a</regionID></DetectionRegionEntry>"
       "<DetectionRegionEntry><regionID>a</regionID></DetectionRegionEntry></DetectionRegionList>"},
      {R"({"DetectionRegionList":[{"DetectionRegionEntry":{"RegionCoordinatesList":7}}]})",
       "<DetectionRegionList><DetectionRegionEntry><RegionCoordinatesList></RegionCoordinatesList>"
       "</DetectionRegionEntry></DetectionRegionList>"},
      {R"({"DetectionRegionList":[{"DetectionRegionEntry":{"TargetRect":[]}}]})", kFails},
      {R"({"AudioExceptionDetection":{}})", "<AudioExceptionDetection></AudioExceptionDetection>"},
      {"[]", kFails},
      {"\"text\"", kFails},
  };
  for (const auto& [alert, children] : cases) {
    const auto xml = convertedAlert(alert);
    if (children == kFails) {
      EXPECT_FALSE(xml) << alert;
      continue;
    }
    ASSERT_TRUE(xml) << alert;
    Json::Value ignored;
    QNBase::CXmlBase expected;
    ASSERT_TRUE(expected.Parse(root + children + "</EventNotificationAlert>"));
    EXPECT_EQ(*xml, expected.GetChildren()) << alert;
  }
  EXPECT_FALSE(converted("{}"));
}

// A few kilobytes must not become megabytes of XML.
TEST(AlarmDocument, RegionsThatWouldExplodeAreDropped) {
  const auto alarm = [](unsigned regions, unsigned coordinates) {
    Json::Value point;
    point["RegionCoordinates"]["positionX"] = 1;
    Json::Value entry;
    auto& points = entry["DetectionRegionEntry"]["RegionCoordinatesList"];
    points = Json::arrayValue;
    for (unsigned i = 0; i < coordinates; ++i) points.append(point);
    Json::Value list;
    list.append(entry);
    list.resize(regions);
    Json::Value alert;
    alert["EventNotificationAlert"]["DetectionRegionList"] = list;
    return qn::json::writeJson(alert);
  };
  EXPECT_TRUE(converted(alarm(8, 1023)));
  EXPECT_FALSE(converted(alarm(8, 1024)));
  EXPECT_TRUE(converted(alarm(8192, 0)));
  EXPECT_FALSE(converted(alarm(8193, 0)));
}

}  // namespace
}  // namespace QNKAVROProtocol
