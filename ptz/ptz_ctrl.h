// Pan-tilt-zoom resources of a sub-device: the channel list, continuous moves, presets and the home
// position. Tried by the configuration dispatcher.
#pragma once

#include "devcfg/route_table.h"

namespace QNKAVROProtocol {

class CPTZCtrl final : public RoutedCfg {
 public:
  CPTZCtrl();

  // The two with a body return kBodyRefused for an unusable one, with the URL emptied.
  static int covertPTZCtrlUrlandBody(DeviceRequest& out, const ClientRequest& in);
  static int covertPTZContinuousUrlandBody(DeviceRequest& out, const ClientRequest& in);
  static int covertPTZPresetsGotoUrlandBody(DeviceRequest& out, const ClientRequest& in);
  static int covertPTZPresetsUrlandBody(DeviceRequest& out, const ClientRequest& in);
  static int covertPTZHomeGotoUrlandBody(DeviceRequest& out, const ClientRequest& in);

  static int covertPTZCtrlRsp(std::string& body, const DeviceReply& reply);
  // The success document, whatever the device's own reply says.
  static int covertPTZContinuousRsp(std::string& body, const DeviceReply& reply);
  static int covertPTZPresetsGotoRsp(std::string& body, const DeviceReply& reply);
  static int covertPTZPresetsRsp(std::string& body, const DeviceReply& reply);
  static int covertPTZHomeGotoRsp(std::string& body, const DeviceReply& reply);
};

}  // namespace QNKAVROProtocol
