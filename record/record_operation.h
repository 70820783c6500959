// Recording search of a sub-device: the client's description to the device's JSON, its matches back
// as XML. Tried last by the configuration dispatcher.
#pragma once

#include "devcfg/route_table.h"

namespace QNKAVROProtocol {

class CRecordOperation final : public RoutedCfg {
 public:
  CRecordOperation();

  // ERROR_NO_RESOURCES for a body that is no XML.
  static int covertSearchUrlandBody(DeviceRequest& out, const ClientRequest& in);
  // The device's JSON text; empty when the body is no XML. Elements count in their order only.
  static std::string covertSearchReq(const ClientRequest& in);

  // Never fails: what is missing in the device's result reads as a default.
  static int covertSearchRsp(std::string& body, const DeviceReply& reply);
};

}  // namespace QNKAVROProtocol
