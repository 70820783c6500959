#include "devcfg/dev_maintain.h"

#include <algorithm>
#include <vector>

#include "devcfg/device_url.h"
#include "document/write_xml.h"
#include "platform/config_mgr.h"
#include "platform/device_mgr.h"
#include "platform/zrt.h"
#include "protocol/error_code.h"
#include "protocol/log.h"
#include "protocol/status_document.h"

namespace QNKAVROProtocol {
namespace {

using namespace table;
using qn::json::Value;

// Six colon-separated pairs: the first twelve digits of a new UUID.
std::string generateMac() {
  ZRT_UUID uuid{};
  char digits[37] = "";
  if (ZRT_GetUUID(uuid) == 0) ZRT_StringFromUUID(uuid, digits, sizeof digits);
  std::string mac = "00:00:00:00:00:00";
  std::size_t at = 0;
  for (const char* digit = digits; *digit != '\0' && at < mac.size(); ++digit) {
    if (*digit == '-') continue;
    if (mac[at] == ':') ++at;
    mac[at++] = *digit;
  }
  return mac;
}

std::string macOrGenerated(std::string_view mac) {
  return mac.empty() ? generateMac() : std::string(mac);
}

constexpr Row kDeviceInfoRows[] = {
    text("deviceName", write::required_or_null).failing(2),
    text("deviceID", write::required_or_null).failing(3),
    constant("deviceDescription", "IPCamera"),
    text("model", write::fallback).filled().fallback("VT-RQ4830"),
    text("serialNumber", write::required_or_null).failing(5),
    text("macAddress", write::required_or_null).changedBy(macOrGenerated).failing(6),
    text("firmwareVersion", write::required_or_null).failing(7),
    text("firmwareReleasedDate", write::optional),
    text("bootVersion", write::optional),
    text("deviceType", write::required_or_null).failing(9),
};
constexpr Row kDeviceInfo = section("DeviceInfo", kDeviceInfoRows, write::present).failing(1);

constexpr Row kVideoInputRows[] = {
    text("id", write::required_or_null).failing(4),
    text("inputPort", write::required_or_null).failing(5),
    text("name", write::optional),
};
constexpr Row kVideoInputEntryRows[] = {
    section("VideoInputChannel", kVideoInputRows, write::present).failing(3),
};
constexpr Row kVideoInputs =
    list("VideoInputChannelList", kVideoInputEntryRows, write::present).failing(1);

// A hard disk that clients accept as one in good order; the gateway's devices record elsewhere.
// "property" twice and the size of 8 are what clients expect.
constexpr std::string_view kHddList =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>    "
    "<hddList version=\"1.0\" xmlns=\"urn:kavro:schema:1.0\" size=\"8\">    "
    "<hdd version=\"2.0\" xmlns=\"urn:kavro:schema:2.0\">    "
    "<id>1</id>    <hddName>hdde</hddName>    <hddPath></hddPath>    <hddType>SATA</hddType>    "
    "<status>ok</status>    <capacity>121942</capacity>    <freeSpace>87296</freeSpace>    "
    "<property>RW</property>    <property>RW</property>    "
    "</hdd>    </hddList>";

struct AccessPorts {
  int http = 0;
  int https = 0;
  int rtsp = 0;
};

AccessPorts gatewayPorts(const CNetworkCfg& network) {
  if (network.isPlatformPortMapping()) {
    return {network.getExtHttpPort(), network.getExtHttpsPort(), network.getExtRtspPort()};
  }
  return {network.getHttpPort(), network.getHttpsPort(), network.getRtspPort()};
}

// The ports of the device whose own port the client has reached; zeros when there is none.
AccessPorts devicePorts(int clientPort) {
  std::vector<CKAVROPort> ports;
  QN_DeviceMgr_GetAllKAVROPort(ports);
  const auto port = std::ranges::find(ports, clientPort, &CKAVROPort::getHttpPort);
  if (port == ports.end()) return {};
  return {port->getHttpPort(), 0, port->getRtspPort()};
}

AccessPorts accessPorts(int mode, const CNetworkCfg& network, const CHttpExchange& exchange) {
  if (mode == KAVRO_MODE_ONE_PORT) return gatewayPorts(network);
  if (mode == KAVRO_MODE_DEVICE_PORTS) return devicePorts(portOfHost(exchange.getHead("Host")));
  return {};
}

struct AccessProtocol {
  const char* id;
  bool enabled;
  const char* name;
  int port;
};

void addAccessProtocol(CXmlBase& xml, const AccessProtocol& protocol) {
  xml.AddNode("AdminAccessProtocol");
  addTextElement(xml, "id", protocol.id);
  addTextElement(xml, "enabled", protocol.enabled ? "true" : "false");
  addTextElement(xml, "protocol", protocol.name);
  addTextElement(xml, "portNo", std::to_string(protocol.port));
  xml.OutOfElem();
}

constexpr int internalUnlessZero(int result) { return result == 0 ? 0 : BUS_INTERNAL_FAILURE; }

constexpr Route kRoutes[] = {
    {"/KAVRO/System/deviceInfo",
     {QNHttpService::HTTP_GET},
     CDevMaintain::covertDevinfoUrlandBody,
     CDevMaintain::covertDevinfoRspBody,
     "Device information",
     nullptr,
     &kDeviceInfo},
    {"/KAVRO/System/Video/inputs/channels",
     {QNHttpService::HTTP_GET},
     CDevMaintain::covertVideochannelUrlandBody,
     CDevMaintain::covertVideochannelRspbody,
     "Video inputs",
     nullptr,
     &kVideoInputs},
    {"/KAVRO/ContentMgmt/Storage/hdd",
     {QNHttpService::HTTP_GET},
     CDevMaintain::covertHddListUrlandBody,
     CDevMaintain::covertHddListRspBody,
     "Hard disks"},
    {"/KAVRO/Security/adminAccesses",
     {QNHttpService::HTTP_GET},
     CDevMaintain::covertAdminAccessesUrlandBody,
     CDevMaintain::covertAdminAccessesRspBody,
     "Access protocols"},
};

}  // namespace

CDevMaintain::CDevMaintain() : RoutedCfg(kRoutes) {}

int CDevMaintain::covertDevinfoUrlandBody(DeviceRequest& out, const ClientRequest& in) {
  out.url = deviceJsonUrl("/KAVRO/System/deviceInfo", in.devIndex);
  return 0;
}

int CDevMaintain::covertVideochannelUrlandBody(DeviceRequest& out, const ClientRequest& in) {
  out.url = deviceJsonUrl("/KAVRO/System/Video/inputs/channels", in.devIndex);
  return 0;
}

int CDevMaintain::covertHddListUrlandBody(DeviceRequest& out, const ClientRequest& in) {
  return covertDevinfoUrlandBody(out, in);
}

int CDevMaintain::covertAdminAccessesUrlandBody(DeviceRequest& out, const ClientRequest& in) {
  return covertDevinfoUrlandBody(out, in);
}

int CDevMaintain::covertDevinfoRspBody(std::string& body, const DeviceReply& reply) {
  return internalUnlessZero(covertDevinfoRsp(body, reply.document));
}

int CDevMaintain::covertVideochannelRspbody(std::string& body, const DeviceReply& reply) {
  return internalUnlessZero(covertVideoChannelRsp(body, reply.document));
}

int CDevMaintain::covertHddListRspBody(std::string& body, const DeviceReply& reply) {
  return internalUnlessZero(covertHddListRsp(body, reply.document));
}

int CDevMaintain::covertAdminAccessesRspBody(std::string& body, const DeviceReply& reply) {
  return internalUnlessZero(covertAdminAccessesRsp(body, reply.document, reply.exchange));
}

int CDevMaintain::covertDevinfoRsp(std::string& body, const Value& reply) {
  const Row* failed = writeDocument(body, kDeviceInfo, reply);
  if (failed == nullptr) return 0;
  QN_LOG(WLOG_ERROR, "covertDevinfoRsp fail %d.", failed->number);
  return -1;
}

int CDevMaintain::covertVideoChannelRsp(std::string& body, const Value& reply) {
  const auto inputs = reply.find(kVideoInputs.json);
  if (inputs && !inputs->isArray()) {
    QN_LOG(WLOG_WARN, "covertVideoChannelRsp fail 2 and return null list.");
  }
  const Row* failed = writeDocument(body, kVideoInputs, reply);
  if (failed == nullptr) return 0;
  QN_LOG(WLOG_ERROR, "covertVideoChannelRsp fail %d.", failed->number);
  return -1;
}

int CDevMaintain::covertHddListRsp(std::string& body, const Value& /*reply*/) {
  body = kHddList;
  return 0;
}

int CDevMaintain::covertAdminAccessesRsp(std::string& body, const Value& /*reply*/,
                                         const CHttpExchange& exchange) {
  const auto network = QN_ConfigMgr_GetNetworkCfg();
  if (network == nullptr) {
    QN_LOG(WLOG_ERROR, "get networkCfg ptr error.");
    return -1;
  }
  const auto kavro = QN_ConfigMgr_GetKAVROCfg();
  if (kavro == nullptr) {
    QN_LOG(WLOG_ERROR, "get KAVROCfg ptr error.");
    return -1;
  }
  const int mode = kavro->getKAVROMode();
  const AccessPorts ports = accessPorts(mode, *network, exchange);
  CXmlBase xml;
  xml.CreateDeclaration("1.0", "UTF-8");
  xml.CreateRoot("AdminAccessProtocolList");
  addAccessProtocol(xml, {"1", true, "HTTP", ports.http});
  addAccessProtocol(xml, {"2", true, "RTSP", ports.rtsp});
  if (mode == KAVRO_MODE_ONE_PORT) {
    addAccessProtocol(xml, {"3", network->getHttpsEnable(), "HTTPS", ports.https});
  }
  body = xml.GetChildren();
  return 0;
}

}  // namespace QNKAVROProtocol
