// Alarms as XML: a pair written by hand, and the rules that their tables do not show at a glance.
#include "alert/event_pto.h"
#include "json/reader.h"
#include "tests/unit/cases.h"
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

TEST(AlarmDocument, Golden) {
  const auto xml = converted(golden("alarm.json"));
  ASSERT_TRUE(xml);
  EXPECT_EQ(flat(*xml), flat(golden("alarm.xml")));
}

// Except lists, which are empty then, and what is not read.
TEST(AlarmDocument, EveryMemberOfAnotherKindDropsTheAlarm) {
  const Json::Value alarm = parsed(golden("alarm.json"));
  int members = 0;
  for (const std::string& path : pathsOf(alarm["EventNotificationAlert"])) {
    const std::string member = "EventNotificationAlert." + path;
    if (path.ends_with("List") || path.ends_with(".Z") || path == "devIndex" || path == "ipAddress")
      continue;
    EXPECT_FALSE(converted(with(alarm, member, true))) << member;
    EXPECT_TRUE(converted(without(alarm, member))) << member;
    ++members;
  }
  EXPECT_EQ(members, 24);
}

TEST(AlarmDocument, OddRules) {
  for (const auto& [head, alert, children] : casesOf("alarms.txt")) {
    const auto xml = converted(R"({"EventNotificationAlert":)" + alert + "}");
    ASSERT_EQ(xml.has_value(), children != "(dropped)") << alert;
    if (!xml) continue;
    QNBase::CXmlBase expected;
    ASSERT_TRUE(expected.Parse(std::string(kDeclaration) + "<EventNotificationAlert>" + children +
                               "</EventNotificationAlert>"));
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
