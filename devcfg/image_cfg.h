// A channel's image capabilities. Tried by the configuration dispatcher. The gateway advertises no
// image settings: the device is asked for the stream so that its faults show, and the answer is an
// empty document.
#pragma once

#include "devcfg/route_table.h"

namespace QNKAVROProtocol {

class CImageCfg final : public RoutedCfg {
 public:
  CImageCfg();

  static int covertChannelcapUrlandBody(DeviceRequest& out, const ClientRequest& in);
  static int covertChannelcapRsp(std::string& body, const DeviceReply& reply);
};

}  // namespace QNKAVROProtocol
