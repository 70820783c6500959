// Alarms as XML: a pair written by hand, and the rules that their tables do not show at a glance.
#include "alert/event_pto.h"
#include "document/plain_value.h"
#include "tests/unit/golden.h"

namespace QNKAVROProtocol {
namespace {

template <class Value>
std::optional<std::string> convertedValue(const Value& alarm) {
  QNBase::CXmlBase xml;
  xml.CreateDeclaration("1.0", "UTF-8");
  xml.CreateRoot("EventNotificationAlert");
  if (CEventPto::convertAlarmData(alarm, xml) != 1) return std::nullopt;
  return xml.GetChildren();
}

// Nothing when the alarm does not fit. Both ways to read an alarm must agree.
std::optional<std::string> converted(const std::string& alarm) {
  const auto xml = convertedValue(parsed(alarm));
  PlainJson reader;
  const PlainValue* const plain = reader.read(alarm);
  if (plain) {
    EXPECT_EQ(convertedValue(*plain), xml) << alarm;
  }
  return xml;
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
  const struct {
    const char* alert;
    std::string children;  // kFails: dropped
  } cases[] = {
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

std::string textAlert(const std::string& id) {
  return R"({"EventNotificationAlert":{"deviceID":)" + id + "}}";
}

std::string rectAlert(const std::string& x) {
  return R"({"EventNotificationAlert":{"DetectionRegionList":[{"DetectionRegionEntry":)"
         R"({"TargetRect":{"X":)" +
         x + "}}}]}}";
}

TEST(AlarmDocument, PlainAlarmsAreReadAsTheLibraryReadsThem) {
  for (const std::string& alarm : {
           golden("alarm.json"),
           textAlert(R"("a","deviceID":"last")"),
           textAlert("\"\xC3\xA4 <&> \t\xFF\""),
           textAlert(R"("a"},"EventNotificationAlert":{"deviceID":"b")"),
           rectAlert("0"),
           rectAlert("-0"),
           rectAlert("-0.0"),
           rectAlert("0.25"),
           rectAlert("-123456789.987654321"),
           rectAlert("true"),
           rectAlert("null"),
           rectAlert("\"1\""),
           std::string(R"({"EventNotificationAlert":{"activePostCount":2.0}})"),
           std::string(R"( { "EventNotificationAlert" : { "a":[1,[],{}], "channelID":"1" } } )"),
       }) {
    PlainJson reader;
    EXPECT_TRUE(reader.read(alarm)) << alarm;
    converted(alarm);
  }
}

TEST(AlarmDocument, WhatIsNotPlainIsLeftToTheLibrary) {
  for (const std::string& alarm : {
           textAlert(R"("a\u0041")"),
           textAlert(R"("a)"),
           textAlert(R"("a"/**/)"),
           textAlert(R"("a",)"),
           textAlert(R"("a" "b")"),
           rectAlert("1234567890"),
           rectAlert("1e3"),
           rectAlert("1."),
           rectAlert(".5"),
           rectAlert("-"),
           rectAlert("+1"),
           rectAlert("1x"),
           rectAlert("0.1234567891"),
           rectAlert("nul"),
           rectAlert(std::string(40, '[') + std::string(40, ']')),
           rectAlert("[" + std::string(2048, '1') + "]"),
           textAlert("\"a\"") + "x",
           textAlert("\"a\"") + '\0',
           std::string("[]"),
           std::string("{"),
           std::string(),
       }) {
    PlainJson reader;
    EXPECT_FALSE(reader.read(alarm)) << alarm;
  }
  std::string many = "0";
  for (int i = 0; i < 1024; ++i) many += ",0";
  PlainJson reader;
  EXPECT_FALSE(reader.read(rectAlert("[" + many + "]")));
  EXPECT_TRUE(reader.read(rectAlert("[0]")));
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
    return writeJson(alert);
  };
  EXPECT_TRUE(converted(alarm(8, 1023)));
  EXPECT_FALSE(converted(alarm(8, 1024)));
  EXPECT_TRUE(converted(alarm(8192, 0)));
  EXPECT_FALSE(converted(alarm(8193, 0)));
}

}  // namespace
}  // namespace QNKAVROProtocol
