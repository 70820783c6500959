// The documents that are answered as they stand, and a few resources of other content types, so
// that everything a gateway may pass through can be tried.
#include <string>

#include "subdevice/device.h"
#include "subdevice/json_text.h"
#include "subdevice/picture.h"
#include "subdevice/resources.h"

namespace subdevice {

Reply getDocument(Call& call) {
  const auto found = call.device.documents.find(call.request.path);
  return found == call.device.documents.end() ? unknownResource() : documentReply(found->second);
}

// The members sent replace those that the device has; a member that it does not have is refused, so
// that nothing grows.
Reply putDocument(Call& call) {
  const auto found = call.device.documents.find(call.request.path);
  if (found == call.device.documents.end()) return unknownResource();
  const Json::Value change = bodyObject(call.request);
  if (change.isNull()) return statusReply(Status::BadFormat, "notAnObject");
  for (const auto& section : change.getMemberNames()) {
    if (!found->second.isMember(section)) return statusReply(Status::BadContent, "unknownMember");
    for (const auto& name : change[section].getMemberNames())
      if (!found->second[section].isMember(name))
        return statusReply(Status::BadContent, "unknownMember");
  }
  mergeJson(found->second, change);
  return okReply();
}

Reply getStatusXml(Call& call) {
  Reply reply;
  reply.contentType = "application/xml";
  reply.body = R"(<?xml version="1.0" encoding="UTF-8"?><DeviceStatus><requests>)" +
               std::to_string(call.device.requests) + "</requests></DeviceStatus>";
  return reply;
}

Reply getSnapshot(Call& call) {
  if (!call.device.streams.contains(call.ids[0])) return unknownResource();
  Reply reply;
  reply.contentType = "image/png";
  reply.body = testPicture(static_cast<unsigned>(call.ids[0]));
  return reply;
}

Reply acceptAnything(Call&) { return okReply(); }

Reply findAccessEvents(Call& call) {
  if (bodyObject(call.request).isNull()) return statusReply(Status::BadFormat, "notAnObject");
  const auto document = parseJson(R"({"AcsEvent": {"totalMatches": 2, "InfoList": [
    {"major": 5, "minor": 75, "employeeNo": "1001", "time": "2026-01-01T08:00:00Z"},
    {"major": 5, "minor": 76, "employeeNo": "1002", "time": "2026-01-01T08:05:00Z"}]}})");
  return documentReply(document.value());
}

}  // namespace subdevice
