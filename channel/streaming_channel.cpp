#include "channel/streaming_channel.h"

#include <algorithm>

#include "document/json_member.h"
#include "document/json_text.h"
#include "document/read_xml.h"
#include "document/write_xml.h"
#include "platform/zrt.h"
#include "protocol/error_code.h"
#include "protocol/log.h"

namespace QNKAVROProtocol {
namespace {

using namespace table;

constexpr Row kChannelRows[] = {
    text("id", write::required, read::required),
    text("channelName", write::required, read::required),
    boolean("enabled", write::required, read::required),
};
// After the sections.
constexpr Row kChannelSwitchRows[] = {
    boolean("enableCABAC", write::optional, read::optional),
    boolean("subStreamRecStatus", write::optional, read::optional),
    boolean("customStreamEnable", write::optional, read::optional),
};

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
constexpr Row kTransport =
    section("Transport", kTransportRows, kFallbackWhenNull).fallback(kDefaultTransportRows);

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
constexpr Row kVideo = section("Video", kVideoRows, write::required);

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
constexpr Row kAudio = section("Audio", kAudioRows, write::required);

int resultOf(const Row* failed) { return failed == nullptr ? 0 : BUS_INTERNAL_FAILURE; }

using SectionWriter = int (*)(QNBase::CXmlBase& doc, const Json::Value& section);

// A section that is missing, null or no object is left out.
bool writeOptionalSection(QNBase::CXmlBase& doc, const Json::Value& channel, const char* name,
                          SectionWriter build) {
  const Json::Value* section = jsonMember(channel, name);
  return section == nullptr || !section->isObject() || build(doc, *section) == 0;
}

bool writeChannel(QNBase::CXmlBase& doc, const Json::Value& channel) {
  const Json::Value* transport = jsonMember(channel, "Transport");
  return transport != nullptr && writeRows(doc, kChannelRows, channel) == nullptr &&
         buildXmlTransport(doc, *transport) == 0 &&
         writeOptionalSection(doc, channel, "Video", buildXmlVideo) &&
         writeOptionalSection(doc, channel, "Audio", buildXmlAudio) &&
         writeRows(doc, kChannelSwitchRows, channel) == nullptr;
}

using SectionReader = int (*)(Json::Value& section, QNBase::CXmlBase& xml);

bool readSection(Json::Value& channel, const char* name, QNBase::CXmlBase& xml,
                 SectionReader build) {
  if (!xml.IntoElem()) return false;
  Json::Value section(Json::objectValue);
  if (build(section, xml) != 0) return false;
  xml.OutOfElem();
  channel[name] = std::move(section);
  return true;
}

bool readOptionalSection(Json::Value& channel, const char* name, QNBase::CXmlBase& xml,
                         SectionReader build) {
  return !xml.FindElem(name) || readSection(channel, name, xml, build);
}

bool readChannel(Json::Value& channel, QNBase::CXmlBase& xml) {
  return readRows(channel, kChannelRows, xml) == nullptr && xml.FindElem("Transport") &&
         readSection(channel, "Transport", xml, buildJsonTranport) &&
         readOptionalSection(channel, "Video", xml, buildJsonVideo) &&
         readOptionalSection(channel, "Audio", xml, buildJsonAudio) &&
         readRows(channel, kChannelSwitchRows, xml) == nullptr;
}

// Custom streams are not listed; a channel without a readable id is tried.
bool isListed(const Json::Value& entry) {
  const Json::Value* channel = jsonMember(entry, "StreamingChannel");
  const Json::Value* id = channel == nullptr ? nullptr : jsonMember(*channel, "id");
  return id == nullptr || !id->isString() || ZRT_Atoi32(id->asCString()) % 100 <= 2;
}

}  // namespace

int buildXmlTransport(QNBase::CXmlBase& doc, const Json::Value& transport) {
  return resultOf(writeRow(doc, kTransport, &transport));
}

int buildXmlVideo(QNBase::CXmlBase& doc, const Json::Value& video) {
  return resultOf(writeRow(doc, kVideo, &video));
}

int buildXmlAudio(QNBase::CXmlBase& doc, const Json::Value& audio) {
  return resultOf(writeRow(doc, kAudio, &audio));
}

int getXMLStreamingChannel(std::string& xml, const Json::Value& reply) {
  constexpr std::size_t kMaxBytes = 102400;
  const Json::Value* channel = jsonMember(reply, "StreamingChannel");
  if (channel == nullptr) return BUS_INTERNAL_FAILURE;
  QNBase::CXmlBase doc;
  doc.CreateRoot("StreamingChannel");
  if (!writeChannel(doc, *channel)) return BUS_INTERNAL_FAILURE;
  xml = doc.GetChildren();
  if (xml.size() > kMaxBytes) xml.resize(kMaxBytes);
  return 0;
}

int getXmlStreamingChannelList(std::string& xml, const Json::Value& reply) {
  QN_LOG(WLOG_INFO, "getXmlStreamingChannelList start");
  const Json::Value* entries = jsonMember(reply, "StreamingChannelList");
  if (entries == nullptr || !entries->isArray()) return BUS_INTERNAL_FAILURE;
  xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<StreamingChannelList>\r\n";
  int index = 0;
  for (const Json::Value& entry : *entries) {
    std::string channel;
    if (isListed(entry) && getXMLStreamingChannel(channel, entry) != 0) {
      QN_LOG(WLOG_ERROR, "get xml streamingchannel[%d] fail", index);
      break;
    }
    xml += channel;
    ++index;
  }
  xml += "</StreamingChannelList>";
  QN_LOG(WLOG_INFO, "getXmlStreamingChannelList end");
  return 0;
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

int getJsonStreamingChannel(std::string& jsonBody, std::string_view xmlBody) {
  QNBase::CXmlBase xml;
  Json::Value channel(Json::objectValue);
  if (!enterRoot(xml, xmlBody, "StreamingChannel") || !readChannel(channel, xml)) {
    return BUS_INTERNAL_FAILURE;
  }
  jsonBody = writeJsonUnder("StreamingChannel", std::move(channel));
  return 0;
}

}  // namespace QNKAVROProtocol
