// The IO outputs: switched by a trigger, and readable so that a test sees what a trigger did.
#include <string>

#include "subdevice/device.h"
#include "subdevice/resources.h"

namespace subdevice {

Reply triggerOutput(Call& call) {
  const auto output = call.device.outputs.find(call.ids[0]);
  if (output == call.device.outputs.end()) return unknownResource();
  const Json::Value data = bodyObject(call.request)["IOPortData"];
  if (!data.isObject()) return statusReply(Status::BadFormat, "notATrigger");
  const std::string state = data.get("outputState", "").asString();
  if (state != "high" && state != "low") return statusReply(Status::BadContent, "unknownState");
  output->second = state;
  return okReply();
}

Reply getOutput(Call& call) {
  const auto output = call.device.outputs.find(call.ids[0]);
  if (output == call.device.outputs.end()) return unknownResource();
  Json::Value document;
  document["IOPortStatus"]["ioPortID"] = call.ids[0];
  document["IOPortStatus"]["ioState"] = output->second;
  return documentReply(document);
}

}  // namespace subdevice
