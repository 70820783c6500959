#include "devcfg/image_cfg.h"

#include "devcfg/device_url.h"

namespace QNKAVROProtocol {
namespace {

constexpr const char* kCapabilities = "/KAVRO/Image/channels/%d/capabilities";

constexpr Route kRoutes[] = {
    {kCapabilities,
     {QNHttpService::HTTP_GET},
     CImageCfg::covertChannelcapUrlandBody,
     CImageCfg::covertChannelcapRsp,
     "Image capabilities"},
};

}  // namespace

CImageCfg::CImageCfg() : RoutedCfg(kRoutes) {}

int CImageCfg::covertChannelcapUrlandBody(DeviceRequest& out, const ClientRequest& in) {
  const int channel = deviceChannelId(urlNumber(in.url, kCapabilities));
  out.url = deviceJsonUrl("/KAVRO/Streaming/channels/" + std::to_string(channel), in.devIndex);
  return 0;
}

int CImageCfg::covertChannelcapRsp(std::string& body, const DeviceReply& /*reply*/) {
  CXmlBase xml;
  xml.CreateDeclaration("1.0", "UTF-8");
  xml.CreateRoot("ImageChannel");
  body = getXMLString(xml);
  return 0;
}

}  // namespace QNKAVROProtocol
