#include "record/record_operation.h"

#include <algorithm>
#include <optional>
#include <vector>

#include "devcfg/device_url.h"
#include "document/read_xml.h"
#include "platform/config_mgr.h"
#include "platform/device_mgr.h"
#include "protocol/error_code.h"

namespace QNKAVROProtocol {
namespace {

using namespace QNHttpService;
using namespace table;

// How recordings are described: made by schedule, or started by hand.
constexpr std::string_view kTimedRecording = "urn:kavro:metadata:recordType/timing";
constexpr std::string_view kManualRecording = "urn:kavro:metadata:recordType/Manual";

constexpr Row kTrackRows[] = {integer("trackID", read::fallback).fallback("101")};
constexpr Row kSpanRows[] = {
    text("startTime", write::always, read::optional),
    text("endTime", write::always, read::optional),
};
constexpr Row kSpanListRows[] = {section("timeSpan", kSpanRows, read::optional)};
constexpr Row kContentTypeRows[] = {text("contentType", read::optional)};
constexpr Row kWantedMetadataRows[] = {
    text("metadataDescriptor", read::fallback).fallback(kTimedRecording),
};
constexpr Row kDescriptionRows[] = {
    text("searchID", read::optional),
    firstOf("trackIDList", kTrackRows, read::fallback),
    firstOf("timeSpanList", kSpanListRows, read::optional),
    firstOf("contentTypeList", kContentTypeRows, read::optional),
    integer("maxResults", read::optional).anywhere(),
    integer("searchResultPostion", read::fallback).fallback("0"),
    firstOf("metadataList", kWantedMetadataRows, read::fallback),
};
constexpr Row kDescription = section("CMSearchDescription", kDescriptionRows, read::required);

std::string playbackUri(std::string_view deviceUri) {
  std::string uri;
  CRecordOperation::getPlaybackURI(uri, deviceUri);
  return uri;
}

constexpr WriteRule kFallbackWhenAbsent{true, Else::Fallback, Else::Read, Else::Read};
constexpr WriteRule kFallbackWhenNull{true, Else::Fallback, Else::Fallback, Else::Read};

constexpr Row kSegmentRows[] = {
    text("contenType", write::fallback).as("contentType").fallback("video"),
    text("codecType", kFallbackWhenAbsent).fallback("H.264-BP"),
    text("playbackURI", write::lenient).changedBy(playbackUri),
};
constexpr Row kFoundMetadataRows[] = {
    text("metadataDescriptor", kFallbackWhenAbsent).fallback(kManualRecording),
};
constexpr Row kMatchRows[] = {
    text("sourceID", kFallbackWhenNull).fallback("0000000000-0000-0000-0000-000000000000"),
    integer("trackID", write::lenient),
    section("timeSpan", kSpanRows, write::optional).whole(),
    section("mediaSegmentDescriptor", kSegmentRows, write::lenient),
    section("metadataMatches", kFoundMetadataRows, write::always),
};
constexpr Row kMatchEntryRows[] = {section("searchMatchItem", kMatchRows, write::always)};
constexpr Row kResultRows[] = {
    text("searchID", write::always),
    boolean("responseStatus", write::always),
    text("responseStatusStrg", write::always),
    integer("numOfMatches", write::always),
    list("matchList", kMatchEntryRows, write::always),
};
constexpr Row kResult = section("CMSearchResult", kResultRows, write::always);

constexpr Route kRoutes[] = {
    {"/KAVRO/ContentMgmt/search",
     {HTTP_POST},
     CRecordOperation::covertSearchUrlandBody,
     CRecordOperation::covertSearchRsp,
     "Recording search",
     &kDescription,
     &kResult},
    {"/KAVRO/ContentMgmt/search/",
     {HTTP_POST},
     CRecordOperation::covertSearchUrlandBody,
     CRecordOperation::covertSearchRsp,
     "Recording search",
     &kDescription,
     &kResult},
};

// In the mode with a port for each device, the device's RTSP port is what it searches by.
std::optional<GivenMember> searchKeyword(const std::string& devIndex) {
  const auto kavro = QN_ConfigMgr_GetKAVROCfg();
  if (kavro == nullptr || kavro->getKAVROMode() != KAVRO_MODE_DEVICE_PORTS) return std::nullopt;
  std::vector<CKAVROPort> ports;
  QN_DeviceMgr_GetAllKAVROPort(ports);
  const auto port = std::ranges::find(ports, devIndex, &CKAVROPort::getDeviceIndex);
  if (port == ports.end()) return std::nullopt;
  const std::string number = std::to_string(port->getRtspPort());
  return GivenMember{"searchTypeList", "[{\"searchKeyword\":\"" + number + "\"}]"};
}

}  // namespace

CRecordOperation::CRecordOperation() : RoutedCfg(kRoutes) {}

int CRecordOperation::covertSearchUrlandBody(DeviceRequest& out, const ClientRequest& in) {
  out.url = deviceJsonUrl("/KAVRO/ContentMgmt/search", in.devIndex);
  out.body = covertSearchReq(in);
  return out.body.empty() ? static_cast<int>(ERROR_NO_RESOURCES) : 0;
}

std::string CRecordOperation::covertSearchReq(const ClientRequest& in) {
  const auto keyword = searchKeyword(in.devIndex);
  std::string json;
  const auto result = readDocument(json, kDescription, in.body, keyword ? &*keyword : nullptr);
  return result == BodyResult::OtherRoot ? "null\n" : json;
}

int CRecordOperation::covertSearchRsp(std::string& body, const DeviceReply& reply) {
  return writeReply(body, kResult, reply.document);
}

}  // namespace QNKAVROProtocol
