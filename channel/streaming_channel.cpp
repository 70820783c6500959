#include "channel/streaming_channel.h"

#include <algorithm>

#include "document/read_xml.h"
#include "document/write_xml.h"
#include "platform/zrt.h"
#include "protocol/error_code.h"
#include "protocol/log.h"

namespace QNKAVROProtocol {
namespace {

using namespace table;
using qn::json::Value;

constexpr Row kStreamingTransportRows[] = {
    text("streamingTransport", write::required, read::required),
};
constexpr Row kControlProtocolRows[] = {
    section("ControlProtocol", kStreamingTransportRows, write::present, read::optional),
};
constexpr Row kUnicastRows[] = {
    boolean("enabled", write::required, read::required),
    text("interfaceID", write::optional, read::optional),
    text("rtpTransportType", write::optional, read::optional),
};
constexpr Row kMulticastRows[] = {
    boolean("enabled", write::required, read::required),
    integer("userTriggerThreshold", write::optional, read::optional),
    text("destIPAddress", write::optional, read::optional),
    integer("videoDestPortNo", write::optional, read::optional),
    integer("audioDestPortNo", write::optional, read::optional),
    text("destIPv6Address", write::optional, read::optional),
    integer("ttl", write::optional, read::optional),
};
constexpr Row kDefaultMulticastRows[] = {
    constant("enabled", "true"),
    constant("destIPAddress", "0.0.0.0"),
    constant("videoDestPortNo", "0"),
    constant("audioDestPortNo", "0"),
};
constexpr Row kSecurityRows[] = {
    boolean("enabled", write::required, read::required),
    text("certificateType", write::optional, read::optional),
};
constexpr WriteRule kFallbackWhenAbsent{true, Else::Fallback, Else::LeaveOut, Else::LeaveOut};
constexpr Row kTransportRows[] = {
    integer("maxPacketSize", write::optional, read::optional),
    integer("audioPacketLength", write::optional, read::optional),
    integer("audioInboundPacketLength", write::optional, read::optional),
    integer("audioInboundPortNo", read::optional),
    integer("videoSourcePortNo", write::optional, read::optional),
    integer("audioSourcePortNo", write::optional, read::optional),
    list("ControlProtocolList", kControlProtocolRows, write::present, read::required),
    section("Unicast", kUnicastRows, write::optional, read::optional),
    section("Multicast", kMulticastRows, kFallbackWhenAbsent, read::optional)
        .fallback(kDefaultMulticastRows),
    section("Security", kSecurityRows, write::optional, read::optional),
};
constexpr Row kDefaultStreamingTransportRows[] = {constant("streamingTransport", "RTSP")};
constexpr Row kDefaultControlProtocolRows[] = {
    section("ControlProtocol", kDefaultStreamingTransportRows, write::always),
};
constexpr Row kDefaultTransportRows[] = {
    section("ControlProtocolList", kDefaultControlProtocolRows, write::always),
    section("Multicast", kDefaultMulticastRows, write::always),
};
constexpr WriteRule kFallbackWhenNull{true, Else::Fail, Else::Fallback, Else::Fail};
constexpr Row kTransport = section("Transport", kTransportRows, kFallbackWhenNull, read::required)
                               .fallback(kDefaultTransportRows);

constexpr Row kSvcRows[] = {
    boolean("enabled", write::required, read::required),
    text("SVCMode", write::optional, read::optional),
};
constexpr Row kSmartCodecRows[] = {
    boolean("enabled", write::required, read::required),
};
constexpr Row kVideoRows[] = {
    boolean("enabled", write::required, read::required),
    text("videoInputChannelID", write::required, read::required),
    text("videoCodecType", write::required, read::required),
    text("videoScanType", write::optional, read::optional),
    integer("videoResolutionWidth", write::required, read::required),
    integer("videoResolutionHeight", write::required, read::required),
    text("videoResolutionName", write::optional, read::optional),
    integer("videoPositionX", write::optional, read::optional),
    integer("videoPositionY", write::optional, read::optional),
    text("videoQualityControlType", write::optional, read::optional),
    integer("constantBitRate", read::optional),
    integer("fixedQuality", write::optional, read::optional),
    integer("vbrUpperCap", write::optional, read::optional),
    integer("vbrLowerCap", write::optional, read::optional),
    integer("maxFrameRate", write::required, read::required),
    integer("keyFrameInterval", write::optional, read::optional),
    integer("rotationDegree", write::optional, read::optional),
    boolean("mirrorEnabled", write::optional, read::optional),
    text("snapShotImageType", write::optional, read::optional),
    text("Mpeg4Profile", write::optional, read::optional),
    text("H264Profile", write::optional, read::optional),
    text("SVACProfile", write::optional, read::optional),
    integer("GovLength", write::optional, read::optional),
    section("SVC", kSvcRows, write::optional, read::optional),
    text("PacketType", write::optional, read::optional),
    integer("smoothing", write::optional, read::optional).within(1, 100, Else::LeaveOut),
    text("H265Profile", write::optional, read::optional),
    section("SmartCodec", kSmartCodecRows, write::optional, read::optional),
    integer("vbrAverageCap", write::optional, read::optional),
};
constexpr Row kVideo = section("Video", kVideoRows, write::optional, read::optional);

constexpr Row kVoiceChangerRows[] = {
    boolean("enabled", write::required),
    integer("level", write::required).within(-12, 12, Else::Fail),
};
constexpr Row kAudioRows[] = {
    boolean("enabled", write::required, read::required),
    text("audioInputChannelID", write::required, read::required),
    text("audioCompressionType", write::required, read::required),
    text("audioInboundCompressionType", write::optional, read::optional),
    integer("audioBitRate", write::optional, read::optional),
    real("audioSamplingRate", write::optional),
    integer("audioSamplingRate", read::optional),
    integer("audioResolution", write::optional, read::optional),
    section("VoiceChanger", kVoiceChangerRows, write::optional),
};
constexpr Row kAudio = section("Audio", kAudioRows, write::optional, read::optional);

constexpr Row kChannelRows[] = {
    text("id", write::required, read::required),
    text("channelName", write::required, read::required),
    boolean("enabled", write::required, read::required),
    kTransport,
    kVideo,
    kAudio,
    boolean("enableCABAC", write::optional, read::optional),
    boolean("subStreamRecStatus", write::optional, read::optional),
    boolean("customStreamEnable", write::optional, read::optional),
};
constexpr Row kChannel = section("StreamingChannel", kChannelRows, write::required, read::required);

int resultOf(const Row* failed) { return failed == nullptr ? 0 : BUS_INTERNAL_FAILURE; }

int buildXmlSection(QNBase::CXmlBase& doc, const Row& row, const Value& section) {
  return section.isObject() ? resultOf(writeRow(doc, row, section)) : BUS_INTERNAL_FAILURE;
}

// Custom streams are not listed; a channel without a readable id is tried.
bool isListed(const Value& entry) {
  const Value id = entry.member("StreamingChannel").member("id");
  return !id.isString() || ZRT_Atoi32(std::string(id.text()).c_str()) % 100 <= 2;
}

// Appends a channel; cut when it is longer than clients take.
const Row* appendChannel(std::string& xml, const Value& reply) {
  constexpr std::size_t kMaxBytes = 102400;
  const std::size_t before = xml.size();
  const Row* failed = writeMember(xml, kChannel, reply);
  xml.resize(failed != nullptr ? before : std::min(xml.size(), before + kMaxBytes));
  return failed;
}

}  // namespace

constexpr Row kListEntryRows[] = {kChannel};
constexpr Row kList = list("StreamingChannelList", kListEntryRows, write::present);
constinit const Row kStreamingChannel = kChannel;
constinit const Row kStreamingChannelList = kList;

int buildXmlTransport(QNBase::CXmlBase& doc, const Value& transport) {
  return resultOf(writeRow(doc, kTransport, transport));
}

int buildXmlVideo(QNBase::CXmlBase& doc, const Value& video) {
  return buildXmlSection(doc, kVideo, video);
}

int buildXmlAudio(QNBase::CXmlBase& doc, const Value& audio) {
  return buildXmlSection(doc, kAudio, audio);
}

int getXMLStreamingChannel(std::string& xml, const Value& reply) {
  std::string channel;
  if (appendChannel(channel, reply) != nullptr) return BUS_INTERNAL_FAILURE;
  xml = std::move(channel);
  return 0;
}

int getXmlStreamingChannelList(std::string& xml, const Value& reply) {
  QN_LOG(WLOG_INFO, "getXmlStreamingChannelList start");
  const Value list = reply.member("StreamingChannelList");
  if (!list.isArray()) return BUS_INTERNAL_FAILURE;
  xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<StreamingChannelList>\r\n";
  Value::Entries entries(list);
  int index = 0;
  for (Value entry; entries.next(entry); ++index) {
    if (isListed(entry) && appendChannel(xml, entry) != nullptr) {
      QN_LOG(WLOG_ERROR, "get xml streamingchannel[%d] fail", index);
      break;
    }
  }
  xml += "</StreamingChannelList>";
  QN_LOG(WLOG_INFO, "getXmlStreamingChannelList end");
  return 0;
}

int getJsonStreamingChannel(std::string& jsonBody, std::string_view xmlBody) {
  return readDocument(jsonBody, kChannel, xmlBody) == BodyResult::Done ? 0 : BUS_INTERNAL_FAILURE;
}

int buildJsonTranport(Json::Value& transport, QNBase::CXmlBase& xml) {
  return resultOf(readRows(transport, kTransportRows, xml));
}

int buildJsonVideo(Json::Value& video, QNBase::CXmlBase& xml) {
  return resultOf(readRows(video, kVideoRows, xml));
}

int buildJsonAudio(Json::Value& audio, QNBase::CXmlBase& xml) {
  return resultOf(readRows(audio, kAudioRows, xml));
}

}  // namespace QNKAVROProtocol
