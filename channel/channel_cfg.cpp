#include "channel/channel_cfg.h"

#include <algorithm>
#include <array>

#include "channel/channel_documents.h"
#include "channel/streaming_channel.h"
#include "devcfg/device_url.h"
#include "json/reader.h"
#include "json/text.h"
#include "platform/device_cfg_bus.h"
#include "protocol/error_code.h"
#include "protocol/log.h"

namespace QNKAVROProtocol {
namespace {

using namespace QNHttpService;

constexpr UrlPattern kChannel = "/KAVRO/Streaming/channels/%d";
constexpr UrlPattern kShortChannel = "/Streaming/channels/%d";
constexpr UrlPattern kCapabilities = "/KAVRO/Streaming/channels/%d/capabilities";

// The device's capabilities reach the client as the device wrote them.
int passOn(std::string&, const DeviceReply&) { return 0; }

constexpr Route kRoutes[] = {
    {kChannel,
     {HTTP_GET, HTTP_PUT},
     CChannelCfg::covertChannelUrlandBody,
     CChannelCfg::covertChannelRspBody,
     "Streaming channel",
     &kStreamingChannel,
     &kStreamingChannel},
    {kShortChannel,
     {HTTP_GET, HTTP_PUT},
     CChannelCfg::covertChannelUrlandBody,
     CChannelCfg::covertChannelRspBody,
     "Streaming channel",
     &kStreamingChannel,
     &kStreamingChannel},
    {"/KAVRO/Streaming/channels",
     {HTTP_GET},
     CChannelCfg::covertChannelallUrlandBody,
     CChannelCfg::covertChannelallRspBody,
     "Streaming channels",
     nullptr,
     &kStreamingChannelList},
    {kCapabilities,
     {HTTP_GET},
     CChannelCfg::covertChannelIDCapUrlandBody,
     passOn,
     "Streaming channel capabilities"},
    {"/KAVRO/System/Audio/channels",
     {HTTP_GET},
     CChannelCfg::covertAudioChannelUrlandBody,
     CChannelCfg::covertAudioChannelRspBody,
     "Audio channels",
     nullptr,
     &kAudioChannelList},
};

// Asks the device; empty when it does not say.
std::string deviceType(const ClientRequest& in) {
  constexpr int kTimeoutMs = 10000;
  std::string text;
  if (QN_DeviceCfgBus_ProcessSyn(static_cast<unsigned char>(in.method),
                                 deviceJsonUrl("/KAVRO/System/deviceInfo", in.devIndex), "", text,
                                 kTimeoutMs) != 0) {
    return {};
  }
  const qn::json::Reading reply(text);
  return std::string(reply.root().member("DeviceInfo").member("deviceType").text());
}

bool isRecorder(std::string_view type) {
  // Spelled as the devices spell them.
  constexpr std::array<std::string_view, 4> kRecorders{"DVR", "HybirdNVR", "NVR", "DVS"};
  return std::ranges::find(kRecorders, type) != kRecorders.end();
}

}  // namespace

CChannelCfg::CChannelCfg() : RoutedCfg(kRoutes) {}

int CChannelCfg::covertChannelUrlandBody(DeviceRequest& out, const ClientRequest& in) {
  const bool isShort = in.url.find("KAVRO") == std::string::npos;
  const int id = urlNumber(in.url, isShort ? kShortChannel : kChannel);
  out.url = deviceJsonUrl("/KAVRO/Streaming/channels/" + std::to_string(deviceChannelId(id)),
                          in.devIndex);
  return in.method == HTTP_PUT ? getJsonStreamingChannel(out.body, in.body) : 0;
}

int CChannelCfg::covertChannelallUrlandBody(DeviceRequest& out, const ClientRequest& in) {
  out.url = deviceJsonUrl("/KAVRO/Streaming/channels", in.devIndex);
  return 0;
}

int CChannelCfg::covertChannelIDCapUrlandBody(DeviceRequest& out, const ClientRequest& in) {
  out.url = deviceUrl(devicePath(in.url, kCapabilities), in.devIndex);
  return 0;
}

int CChannelCfg::covertAudioChannelUrlandBody(DeviceRequest& out, const ClientRequest& in) {
  if (in.method > HTTP_DELETE) return kDeclined;
  out.url = deviceJsonUrl(isRecorder(deviceType(in)) ? "/KAVRO/System/Video/inputs/channels"
                                                     : "/KAVRO/System/Audio/channels",
                          in.devIndex);
  return 0;
}

int CChannelCfg::covertChannelRspBody(std::string& body, const DeviceReply& reply) {
  if (reply.method == HTTP_PUT) return answerSuccess(body, reply);
  std::string channel;
  const int result = getXMLStreamingChannel(channel, reply.document);
  if (result == 0) body = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n" + channel;
  return result;
}

int CChannelCfg::covertChannelallRspBody(std::string& body, const DeviceReply& reply) {
  return getXmlStreamingChannelList(body, reply.document);
}

int CChannelCfg::covertChannelIDCapRspBody(std::string& body, const DeviceReply& reply) {
  QN_LOG(WLOG_DUMP, "/KAVRO/Streaming/channels/<id>/capabilities rep=%s",
         qn::json::writeJson(reply.document.copy()).c_str());
  return getXmlChannelIDCap(body, reply.document);
}

int CChannelCfg::covertAudioChannelRspBody(std::string& body, const DeviceReply& reply) {
  return getXmlAudioChannelList(body, reply.document);
}

}  // namespace QNKAVROProtocol
