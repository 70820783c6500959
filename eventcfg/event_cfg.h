// Smart and system capabilities and the alarm inputs and outputs of a sub-device. Tried by the
// configuration dispatcher.
#pragma once

#include "devcfg/route_table.h"

namespace QNKAVROProtocol {

class CEventCfg final : public RoutedCfg {
 public:
  CEventCfg();

  // The GET converters send the request's body along as it is. System capabilities are asked for
  // as smart ones, which the device has.
  static int covertSmartCapUrlandBody(DeviceRequest& out, const ClientRequest& in);
  static int covertSystemIOUrlandBody(DeviceRequest& out, const ClientRequest& in);
  static int covertSysemCapUrlandBody(DeviceRequest& out, const ClientRequest& in);
  // kBodyRefused, with the URL emptied, for a body without a level that outputs have.
  static int covertIOOutputTriggerUrlandBody(DeviceRequest& out, const ClientRequest& in);

  static int covertSmartCapRspBody(std::string& body, const DeviceReply& reply);
  static int covertSystemIORspBody(std::string& body, const DeviceReply& reply);
  // The same document always.
  static int covertSystemCapRspBody(std::string& body, const DeviceReply& reply);
  // The success document, whatever the device's own reply says.
  static int covertIOOutputTriggerRspBody(std::string& body, const DeviceReply& reply);
};

}  // namespace QNKAVROProtocol
