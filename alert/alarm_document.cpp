// See event_pto.h. Here: alarms as XML. A whitelist: what no row names is not carried over.
#include <exception>

#include "alert/event_pto.h"
#include "document/json_member.h"
#include "document/write_xml.h"

namespace QNKAVROProtocol {
namespace {

using namespace table;

constexpr const char* kAlert = "EventNotificationAlert";

// Regions are written once for each entry of their list, so a small alarm could ask for a huge
// document; one with more elements than this, about what a stream's queue holds, is dropped.
constexpr std::size_t kMaxRegionElements = 8192;

constexpr Row kCommonRows[] = {
    text("channelID", write::strict),          text("dateTime", write::strict),
    integer("activePostCount", write::strict), text("eventType", write::strict),
    text("eventState", write::strict),         text("eventDescription", write::strict),
    integer("inputIOPortID", write::strict),   text("channelName", write::strict),
    text("deviceID", write::strict),
};

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
// Every entry repeats the first region; clients of this gateway expect it so.
constexpr Row kRegionListRows[] = {
    list("DetectionRegionList", kRegionEntryRows, write::lenient).firstEachTime(),
};

constexpr Row kAudioRows[] = {
    text("alarmType", write::strict),
    integer("audioDecibel", write::strict),
};
constexpr Row kAudioExceptionRows[] = {
    section("AudioExceptionDetection", kAudioRows, write::strict),
};

// Value is Json::Value or PlainValue.
template <class Value>
int writeAlert(const Value& alarm, Rows rows, QNBase::CXmlBase& xml) {
  const Value* alert = jsonMember(alarm, kAlert);
  if (alert == nullptr || !alert->isObject()) return 0;
  return writeRows(xml, rows, *alert) == nullptr ? 1 : 0;
}

template <class Value>
const Value& memberOrNull(const Value& value, std::string_view name) {
  const Value* member = jsonMember(value, name);
  return member == nullptr ? Value::nullSingleton() : *member;
}

template <class Value>
bool regionsFit(const Value& alarm) {
  const Value& regions = memberOrNull(memberOrNull(alarm, kAlert), "DetectionRegionList");
  if (!regions.isArray() || regions.empty()) return true;
  const Value& first = memberOrNull(*regions.begin(), "DetectionRegionEntry");
  const std::size_t coordinates = memberOrNull(first, "RegionCoordinatesList").size();
  return regions.size() * (coordinates + 1) <= kMaxRegionElements;
}

template <class Value>
int writeRegions(const Value& alarm, QNBase::CXmlBase& xml) {
  return regionsFit(alarm) ? writeAlert(alarm, kRegionListRows, xml) : 0;
}

}  // namespace

int CEventPto::convertAlarmData(const Json::Value& alarm, QNBase::CXmlBase& xml) {
  try {
    return convertCommonAlarmData(alarm, xml) == 1 &&
                   convertDetectionRegionListAlarmData(alarm, xml) == 1 &&
                   convertAudioExceptionDetectionAlarmData(alarm, xml) == 1
               ? 1
               : 0;
  } catch (const std::exception&) {
    return 0;
  }
}

int CEventPto::convertAlarmData(const PlainValue& alarm, QNBase::CXmlBase& xml) {
  return writeAlert(alarm, kCommonRows, xml) == 1 && writeRegions(alarm, xml) == 1 &&
                 writeAlert(alarm, kAudioExceptionRows, xml) == 1
             ? 1
             : 0;
}

int CEventPto::convertCommonAlarmData(const Json::Value& alarm, QNBase::CXmlBase& xml) {
  return writeAlert(alarm, kCommonRows, xml);
}

int CEventPto::convertDetectionRegionListAlarmData(const Json::Value& alarm,
                                                   QNBase::CXmlBase& xml) {
  return writeRegions(alarm, xml);
}

int CEventPto::convertAudioExceptionDetectionAlarmData(const Json::Value& alarm,
                                                       QNBase::CXmlBase& xml) {
  return writeAlert(alarm, kAudioExceptionRows, xml);
}

}  // namespace QNKAVROProtocol
