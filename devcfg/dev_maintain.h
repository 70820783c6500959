// Device information, video inputs, hard disks and access protocols of a sub-device. Tried by the
// configuration dispatcher; all four are read only.
#pragma once

#include "devcfg/route_table.h"

namespace QNKAVROProtocol {

class CDevMaintain final : public RoutedCfg {
 public:
  CDevMaintain();

  // Request converters; the last two resources ask the device only whether it answers.
  static int covertDevinfoUrlandBody(DeviceRequest& out, const ClientRequest& in);
  static int covertVideochannelUrlandBody(DeviceRequest& out, const ClientRequest& in);
  static int covertHddListUrlandBody(DeviceRequest& out, const ClientRequest& in);
  static int covertAdminAccessesUrlandBody(DeviceRequest& out, const ClientRequest& in);

  // Reply converters of the routes: 0, or BUS_INTERNAL_FAILURE with the body untouched.
  static int covertDevinfoRspBody(std::string& body, const DeviceReply& reply);
  static int covertVideochannelRspbody(std::string& body, const DeviceReply& reply);
  static int covertHddListRspBody(std::string& body, const DeviceReply& reply);
  static int covertAdminAccessesRspBody(std::string& body, const DeviceReply& reply);

  // The documents: 0, or -1 with a line in the log and the body untouched.
  static int covertDevinfoRsp(std::string& body, const qn::json::Value& reply);
  static int covertVideoChannelRsp(std::string& body, const qn::json::Value& reply);
  // The same document always.
  static int covertHddListRsp(std::string& body, const qn::json::Value& reply);
  // From the gateway's own configuration.
  static int covertAdminAccessesRsp(std::string& body, const qn::json::Value& reply,
                                    const CHttpExchange& exchange);
};

}  // namespace QNKAVROProtocol
