// See event_pto.h. Here: alarms as XML. A whitelist: what no row names is not carried over.
#include "alert/event_pto.h"
#include "document/write_xml.h"

namespace QNKAVROProtocol {
namespace {

using namespace table;
using qn::json::Value;

// Regions are written once for each entry of their list, so a small alarm could ask for a huge
// document; one with more elements than this, about what a stream's queue holds, is dropped.
constexpr std::size_t kMaxRegionElements = 8192;

constexpr Row kCoordinateRows[] = {
    integer("positionX", write::strict),
    integer("positionY", write::strict),
};
constexpr Row kCoordinateEntryRows[] = {
    section("RegionCoordinates", kCoordinateRows, write::strict),
};
constexpr Row kTargetRectRows[] = {
    real("X", write::strict),
    real("Y", write::strict),
    real("width", write::strict),
    real("height", write::strict),
};
constexpr Row kRegionRows[] = {
    text("regionID", write::strict),
    integer("sensitivityLevel", write::strict),
    list("RegionCoordinatesList", kCoordinateEntryRows, write::lenient),
    text("detectionTarget", write::strict),
    section("TargetRect", kTargetRectRows, write::strict),
};
constexpr Row kRegionEntryRows[] = {
    section("DetectionRegionEntry", kRegionRows, write::strict),
};
constexpr Row kAudioRows[] = {
    text("alarmType", write::strict),
    integer("audioDecibel", write::strict),
};

constexpr std::size_t kCommonRows = 9;
constexpr Row kAlertRows[] = {
    text("channelID", write::strict),
    text("dateTime", write::strict),
    integer("activePostCount", write::strict),
    text("eventType", write::strict),
    text("eventState", write::strict),
    text("eventDescription", write::strict),
    integer("inputIOPortID", write::strict),
    text("channelName", write::strict),
    text("deviceID", write::strict),
    // Every entry repeats the first region; clients of this gateway expect it so.
    list("DetectionRegionList", kRegionEntryRows, write::lenient).firstEachTime(),
    section("AudioExceptionDetection", kAudioRows, write::strict),
};
constexpr Row kAlert = section("EventNotificationAlert", kAlertRows, write::required);

bool regionsFit(const Value& alarm) {
  const Value regions = alarm.member(kAlert.json).member("DetectionRegionList");
  Value first;
  if (!regions.isArray() || !Value::Entries(regions).next(first)) return true;
  const Value region = first.member("DetectionRegionEntry");
  const std::size_t coordinates = region.member("RegionCoordinatesList").size();
  return regions.size() * (coordinates + 1) <= kMaxRegionElements;
}

int writeAlert(const Value& alarm, Rows rows, QNBase::CXmlBase& xml) {
  const Value alert = alarm.member(kAlert.json);
  return alert.isObject() && regionsFit(alarm) && writeRows(xml, rows, alert) == nullptr ? 1 : 0;
}

}  // namespace

constinit const Row kAlarm = kAlert;

int CEventPto::convertAlarmData(const Value& alarm, QNBase::CXmlBase& xml) {
  return writeAlert(alarm, kAlert.rows, xml);
}

bool CEventPto::alarmDocument(std::string& xml, const Value& alarm) {
  return regionsFit(alarm) && writeDocument(xml, kAlert, alarm) == nullptr;
}

int CEventPto::convertCommonAlarmData(const Value& alarm, QNBase::CXmlBase& xml) {
  return writeAlert(alarm, kAlert.rows.part(0, kCommonRows), xml);
}

int CEventPto::convertDetectionRegionListAlarmData(const Value& alarm, QNBase::CXmlBase& xml) {
  return writeAlert(alarm, kAlert.rows.part(kCommonRows, 1), xml);
}

int CEventPto::convertAudioExceptionDetectionAlarmData(const Value& alarm, QNBase::CXmlBase& xml) {
  return writeAlert(alarm, kAlert.rows.part(kCommonRows + 1, 1), xml);
}

}  // namespace QNKAVROProtocol
