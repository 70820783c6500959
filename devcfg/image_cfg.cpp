#include "devcfg/image_cfg.h"

#include "devcfg/device_url.h"
#include "protocol/error_code.h"
#include "protocol/url_numbers.h"

namespace QNKAVROProtocol {
namespace {

constexpr const char* kCapabilities = "/KAVRO/Image/channels/%d/capabilities";

// A plain channel number means its first stream; a number over 100 already names a stream, as
// channel * 100 + stream. 100 itself counts as plain.
int64_t streamingChannel(int channel) {
  return channel > 100 ? channel : int64_t{channel} * 100 + 1;
}

}  // namespace

int CImageCfg::checkUrlAndMethod(const std::string& url, unsigned int method) {
  return method == QNHttpService::HTTP_GET && cmpURLWithInt(url, kCapabilities, 1) ? 0 : DECLINED;
}

int CImageCfg::covertUrlandBody(std::string& jsonUrl, std::string& /*jsonBody*/,
                                const stHttpRes& request, const std::string& devIndex) {
  const std::string& url = request.exchange->getUrl();
  if (checkUrlAndMethod(url, request.exchange->getMethod()) == DECLINED) return -1;
  return covertChannelcapUrlandBody(jsonUrl, url, devIndex);
}

int CImageCfg::covertRspBody(std::string& body, const Json::Value& /*reply*/,
                             const std::string& url, int method,
                             const CHttpExchange& /*exchange*/) {
  if (checkUrlAndMethod(url, static_cast<unsigned int>(method)) == DECLINED) return DECLINED;
  return covertChannelcapRsp(body) == 0 ? 0 : BUS_INTERNAL_FAILURE;
}

int CImageCfg::covertChannelcapUrlandBody(std::string& jsonUrl, const std::string& url,
                                          const std::string& devIndex) {
  int channel = 0;
  readUrlNumbers(url, kCapabilities, {&channel, 1});
  jsonUrl = deviceJsonUrl("/KAVRO/Streaming/channels/" + std::to_string(streamingChannel(channel)),
                          devIndex);
  return 0;
}

int CImageCfg::covertChannelcapRsp(std::string& body) {
  CXmlBase xml;
  xml.CreateDeclaration("1.0", "UTF-8");
  xml.CreateRoot("ImageChannel");
  body = getXMLString(xml);
  return 0;
}

}  // namespace QNKAVROProtocol
