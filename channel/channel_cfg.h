// Streaming channels, their capabilities and the audio channel list of a sub-device. Tried first by
// the configuration dispatcher.
#pragma once

#include "devcfg/route_table.h"

namespace QNKAVROProtocol {

class CChannelCfg final : public RoutedCfg {
 public:
  CChannelCfg();

  static int covertChannelUrlandBody(DeviceRequest& out, const ClientRequest& in);
  static int covertChannelallUrlandBody(DeviceRequest& out, const ClientRequest& in);
  // Unlike the others it asks with the client's id and not expressly for JSON.
  static int covertChannelIDCapUrlandBody(DeviceRequest& out, const ClientRequest& in);
  // Asks the device first what it is, and blocks for its answer (10 s at most): a recorder's audio
  // channels are those of its video inputs.
  static int covertAudioChannelUrlandBody(DeviceRequest& out, const ClientRequest& in);

  // A PUT is answered with success whatever the device's document says.
  static int covertChannelRspBody(std::string& body, const DeviceReply& reply);
  static int covertChannelallRspBody(std::string& body, const DeviceReply& reply);
  // Fixed capabilities instead of the device's own. The routes pass the device's on as they are.
  static int covertChannelIDCapRspBody(std::string& body, const DeviceReply& reply);
  static int covertAudioChannelRspBody(std::string& body, const DeviceReply& reply);
};

}  // namespace QNKAVROProtocol
