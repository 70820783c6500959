// A channel's image capabilities. The gateway advertises no image settings: the device is asked for
// the stream so that its faults show, and the answer is an empty document.
#pragma once

#include <string>

#include "devcfg/dev_cfg_base.h"

namespace QNKAVROProtocol {

class CImageCfg final : public CDevCfgBase {
 public:
  int checkUrlAndMethod(const std::string& url, unsigned int method) override;
  int covertRspBody(std::string& body, const Json::Value& reply, const std::string& url, int method,
                    const CHttpExchange& exchange) override;
  int covertUrlandBody(std::string& jsonUrl, std::string& jsonBody, const stHttpRes& request,
                       const std::string& devIndex) override;

 private:
  int covertChannelcapUrlandBody(std::string& jsonUrl, const std::string& url,
                                 const std::string& devIndex);
  int covertChannelcapRsp(std::string& body);
};

}  // namespace QNKAVROProtocol
