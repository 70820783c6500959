#include "ptz/ptz_ctrl.h"

#include "devcfg/device_url.h"
#include "document/read_xml.h"

namespace QNKAVROProtocol {
namespace {

using namespace QNHttpService;
using namespace table;

constexpr UrlPattern kContinuous = "/KAVRO/PTZCtrl/channels/%d/continuous";
constexpr UrlPattern kPresetGoto = "/KAVRO/PTZCtrl/channels/%d/presets/%d/goto";
constexpr UrlPattern kPreset = "/KAVRO/PTZCtrl/channels/%d/presets/%d";
constexpr UrlPattern kHomeGoto = "/KAVRO/PTZCtrl/channels/%d/homeposition/goto";

constexpr Row kControlAddressRows[] = {
    boolean("enabled", write::required),
    text("Address", write::strict),
};
constexpr Row kSerialLineRows[] = {
    integer("baudRate", write::required), integer("dataBits", write::required),
    text("parityType", write::required),  text("stopBits", write::required),
    text("flowCtrl", write::required),
};
constexpr Row kChannelRows[] = {
    integer("id", write::required),
    boolean("enabled", write::required),
    integer("serialNumber", write::required),
    integer("videoInputID", write::required),
    integer("panMaxSpeed", write::strict),
    integer("tiltMaxSpeed", write::strict),
    integer("presetSpeed", write::strict),
    integer("autoPatrolSpeed", write::strict),
    integer("keyBoardControlSpeed", write::strict),
    text("controlProtocol", write::strict),
    section("controlAddress", kControlAddressRows, write::strict),
    text("defaultPresetID", write::strict),
    section("PTZRs485Para", kSerialLineRows, write::strict),
    text("manualControlSpeed", write::strict),
};
constexpr Row kChannelEntryRows[] = {section("PTZChannel", kChannelRows, write::required)};
constexpr Row kChannelList = list("PTZChannelList", kChannelEntryRows, write::present);

constexpr Row kMoveRows[] = {
    integer("pan", read::optional).anywhere(),
    integer("tilt", read::optional).anywhere(),
    integer("zoom", read::optional).anywhere(),
};
constexpr Row kMove = section("PTZData", kMoveRows, read::required);

constexpr Row kPresetRows[] = {
    boolean("enabled", read::optional).anywhere().trueUnlessFalse(),
    text("id", read::optional).anywhere().filled(),
    text("presetName", read::optional).anywhere().filled(),
};
constexpr Row kPresetData = section("PTZPreset", kPresetRows, read::required);

std::string sameUrl(UrlPattern pattern, const ClientRequest& in) {
  return deviceJsonUrl(devicePath(in.url, pattern), in.devIndex);
}

int readBody(DeviceRequest& out, const Row& root, std::string_view body) {
  if (readDocument(out.body, root, body) == BodyResult::Done) return 0;
  out.url.clear();
  return kBodyRefused;
}

constexpr Route kRoutes[] = {
    {"/KAVRO/PTZCtrl/channels",
     {HTTP_GET},
     CPTZCtrl::covertPTZCtrlUrlandBody,
     CPTZCtrl::covertPTZCtrlRsp,
     "PTZ channels",
     nullptr,
     &kChannelList},
    {kContinuous,
     {HTTP_PUT},
     CPTZCtrl::covertPTZContinuousUrlandBody,
     CPTZCtrl::covertPTZContinuousRsp,
     "Continuous move",
     &kMove},
    {kPresetGoto,
     {HTTP_PUT},
     CPTZCtrl::covertPTZPresetsGotoUrlandBody,
     CPTZCtrl::covertPTZPresetsGotoRsp,
     "Move to a preset"},
    {kPreset,
     {HTTP_PUT, HTTP_DELETE},
     CPTZCtrl::covertPTZPresetsUrlandBody,
     CPTZCtrl::covertPTZPresetsRsp,
     "Preset",
     &kPresetData},
    {kHomeGoto,
     {HTTP_PUT},
     CPTZCtrl::covertPTZHomeGotoUrlandBody,
     CPTZCtrl::covertPTZHomeGotoRsp,
     "Move home"},
};

}  // namespace

CPTZCtrl::CPTZCtrl() : RoutedCfg(kRoutes) {}

int CPTZCtrl::covertPTZCtrlUrlandBody(DeviceRequest& out, const ClientRequest& in) {
  out.url = deviceJsonUrl("/KAVRO/PTZCtrl/channels", in.devIndex);
  return 0;
}

int CPTZCtrl::covertPTZContinuousUrlandBody(DeviceRequest& out, const ClientRequest& in) {
  out.url = sameUrl(kContinuous, in);
  return readBody(out, kMove, in.body);
}

int CPTZCtrl::covertPTZPresetsGotoUrlandBody(DeviceRequest& out, const ClientRequest& in) {
  out.url = sameUrl(kPresetGoto, in);
  return 0;
}

int CPTZCtrl::covertPTZPresetsUrlandBody(DeviceRequest& out, const ClientRequest& in) {
  out.url = sameUrl(kPreset, in);
  return in.method == HTTP_DELETE ? 0 : readBody(out, kPresetData, in.body);
}

int CPTZCtrl::covertPTZHomeGotoUrlandBody(DeviceRequest& out, const ClientRequest& in) {
  out.url = sameUrl(kHomeGoto, in);
  return 0;
}

int CPTZCtrl::covertPTZCtrlRsp(std::string& body, const DeviceReply& reply) {
  return writeReply(body, kChannelList, reply.document);
}

int CPTZCtrl::covertPTZContinuousRsp(std::string& body, const DeviceReply& reply) {
  return answerSuccess(body, reply);
}

int CPTZCtrl::covertPTZPresetsGotoRsp(std::string& body, const DeviceReply& reply) {
  return answerSuccess(body, reply);
}

int CPTZCtrl::covertPTZPresetsRsp(std::string& body, const DeviceReply& reply) {
  return answerSuccess(body, reply);
}

int CPTZCtrl::covertPTZHomeGotoRsp(std::string& body, const DeviceReply& reply) {
  return answerSuccess(body, reply);
}

}  // namespace QNKAVROProtocol
