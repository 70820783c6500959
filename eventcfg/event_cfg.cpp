#include "eventcfg/event_cfg.h"

#include <algorithm>
#include <array>

#include "devcfg/device_url.h"
#include "document/read_xml.h"
#include "protocol/log.h"

namespace QNKAVROProtocol {
namespace {

using namespace QNHttpService;
using namespace table;

constexpr UrlPattern kTrigger = "/KAVRO/System/IO/outputs/%d/trigger";

constexpr Row kSmartCapRows[] = {
    boolean("isSupportROI", write::strict),
    boolean("isSupportFaceDetect", write::strict),
    boolean("isSupportIntelliTrace", write::strict),
    boolean("isSupportFieldDetection", write::strict),
    boolean("isSupportDefocusDetection", write::strict),
    boolean("isSupportAudioDetection", write::strict),
    boolean("isSupportSceneChangeDetection", write::strict),
    boolean("isSupportLineDetection", write::strict),
    boolean("isSupportRegionEntrance", write::strict),
    boolean("isSupportRegionExiting", write::strict),
    boolean("isSupportLoitering", write::strict),
    boolean("isSupportGroup", write::strict),
    boolean("isSupportRapidMove", write::strict),
    boolean("isSupportParking", write::strict),
    boolean("isSupportUnattendedBaggage", write::strict),
    boolean("isSupportAttendedBaggage", write::strict),
    boolean("isSupportPeopleDetection", write::strict),
    boolean("isSupportShipsDetection", write::strict),
    boolean("isSupportSmartCalibration", write::strict),
    boolean("isSupportStorageDetection", write::strict),
    boolean("isSupportShield", write::strict),
    boolean("isSupportAlgVersion", write::strict),
    boolean("isSupportVideoOverlap", write::strict),
    boolean("isSupportParkingState", write::strict),
    boolean("isSupportChannelResource", write::strict),
    boolean("isSupportAnalysisUnitSwitch", write::strict),
    boolean("isSupportHFPD", write::strict),
    boolean("isSupportImageROI", write::strict),
    boolean("isSupportLFPD", write::strict),
};
constexpr Row kSmartCap = section("SmartCap", kSmartCapRows, write::strict);

// A port is reported as enabled whatever its own state is.
constexpr Row kInputRows[] = {
    integer("id", write::required),
    boolean("enable", write::required).as("enabled").shownAs("true"),
    text("triggering", write::strict),
    text("name", write::strict),
};
constexpr Row kInputEntryRows[] = {section("IOInputPort", kInputRows, write::strict)};
constexpr Row kOutputRows[] = {
    integer("id", write::required),
    boolean("enable", write::required).as("enabled").shownAs("true"),
    text("name", write::strict),
};
constexpr Row kOutputEntryRows[] = {section("IOOutputPort", kOutputRows, write::strict)};
constexpr Row kPortListRows[] = {
    list("IOInputPortList", kInputEntryRows, write::strict),
    list("IOOutputPortList", kOutputEntryRows, write::strict),
};
constexpr Row kPortList = section("IOPortList", kPortListRows, write::strict);

constexpr Row kTriggerRows[] = {text("outputState", read::required)};
constexpr Row kTriggerData = section("IOPortData", kTriggerRows, read::required);
// What a device takes: the levels that outputs have.
constexpr std::array<std::string_view, 2> kTriggers = {
    "{\"IOPortData\":{\"outputState\":\"high\"}}\n",
    "{\"IOPortData\":{\"outputState\":\"low\"}}\n",
};

// Clients compare this text, blanks included.
constexpr std::string_view kSystemCapabilities =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?><DeviceCap version = \"2.0\"><SysCap>"
    "<IOCap  version = \"2.0\"></IOCap></SysCap></DeviceCap>";

int passBody(DeviceRequest& out, const ClientRequest& in, std::string_view path) {
  out.url = deviceJsonUrl(path, in.devIndex);
  out.body = in.body;
  return 0;
}

// What is wrong with the body of a trigger; null when nothing is, with the device's body in `json`.
const char* readTrigger(std::string& json, std::string_view body) {
  switch (readDocument(json, kTriggerData, body)) {
    case BodyResult::NotXml:
      return "Parse failed";
    case BodyResult::OtherRoot:
    case BodyResult::Refused:
      return "xml cannot find outputState";
    case BodyResult::Done:
      break;
  }
  return std::ranges::find(kTriggers, json) != kTriggers.end() ? nullptr
                                                               : "xml outputState is wrong param";
}

constexpr Route kRoutes[] = {
    {"/KAVRO/Smart/capabilities",
     {HTTP_GET},
     CEventCfg::covertSmartCapUrlandBody,
     CEventCfg::covertSmartCapRspBody,
     "Smart capabilities",
     nullptr,
     &kSmartCap},
    {"/KAVRO/Smart/capabilities/SmartCap",
     {HTTP_GET},
     CEventCfg::covertSmartCapUrlandBody,
     CEventCfg::covertSmartCapRspBody,
     "Smart capabilities",
     nullptr,
     &kSmartCap},
    {"/KAVRO/System/IO",
     {HTTP_GET},
     CEventCfg::covertSystemIOUrlandBody,
     CEventCfg::covertSystemIORspBody,
     "Alarm inputs and outputs",
     nullptr,
     &kPortList},
    {"/KAVRO/System/capabilities",
     {HTTP_GET},
     CEventCfg::covertSysemCapUrlandBody,
     CEventCfg::covertSystemCapRspBody,
     "System capabilities"},
    {kTrigger,
     {HTTP_PUT},
     CEventCfg::covertIOOutputTriggerUrlandBody,
     CEventCfg::covertIOOutputTriggerRspBody,
     "Output trigger",
     &kTriggerData},
};

}  // namespace

CEventCfg::CEventCfg() : RoutedCfg(kRoutes) {}

int CEventCfg::covertSmartCapUrlandBody(DeviceRequest& out, const ClientRequest& in) {
  return passBody(out, in, "/KAVRO/Smart/capabilities");
}

int CEventCfg::covertSystemIOUrlandBody(DeviceRequest& out, const ClientRequest& in) {
  return passBody(out, in, "/KAVRO/System/IO");
}

int CEventCfg::covertSysemCapUrlandBody(DeviceRequest& out, const ClientRequest& in) {
  return passBody(out, in, "/KAVRO/Smart/capabilities");
}

int CEventCfg::covertIOOutputTriggerUrlandBody(DeviceRequest& out, const ClientRequest& in) {
  std::string body;
  if (const char* fault = readTrigger(body, in.body)) {
    QN_LOG(WLOG_ERROR, "%s", fault);
    out.url.clear();
    return kBodyRefused;
  }
  out.url = deviceJsonUrl(devicePath(in.url, kTrigger), in.devIndex);
  out.body = std::move(body);
  return 0;
}

int CEventCfg::covertSmartCapRspBody(std::string& body, const DeviceReply& reply) {
  return writeReply(body, kSmartCap, reply.document);
}

int CEventCfg::covertSystemIORspBody(std::string& body, const DeviceReply& reply) {
  return writeReply(body, kPortList, reply.document);
}

int CEventCfg::covertSystemCapRspBody(std::string& body, const DeviceReply&) {
  body = kSystemCapabilities;
  return 0;
}

int CEventCfg::covertIOOutputTriggerRspBody(std::string& body, const DeviceReply& reply) {
  return answerSuccess(body, reply);
}

}  // namespace QNKAVROProtocol
