// The documents that are answered as they stand, and a few resources of other content types, so
// that everything a gateway may pass through can be tried: XML, snapshots. And the IO outputs,
// switched by a trigger, and readable so that a test sees what a trigger did.
#include <boost/crc.hpp>
#include <cstdint>
#include <string>

#include "subdevice/device.h"
#include "subdevice/json_text.h"
#include "subdevice/resources.h"

namespace subdevice {
namespace {

constexpr unsigned kWidth = 64;
constexpr unsigned kHeight = 48;

std::string bigEndian(uint32_t number) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(number >> shift);
  return bytes;
}

std::string chunk(const std::string& typeAndData) {
  boost::crc_32_type crc;
  crc.process_bytes(typeAndData.data(), typeAndData.size());
  return bigEndian(static_cast<uint32_t>(typeAndData.size() - 4)) + typeAndData +
         bigEndian(crc.checksum());
}

// One grey byte a pixel, each row after its filter byte.
std::string pixels(unsigned variant) {
  std::string rows;
  for (unsigned y = 0; y < kHeight; ++y) {
    rows += '\0';
    for (unsigned x = 0; x < kWidth; ++x) rows += static_cast<char>((x ^ y) * 4 + variant);
  }
  return rows;
}

uint32_t adler32(const std::string& data) {
  constexpr uint32_t kModulus = 65521;
  uint32_t low = 1;
  uint32_t high = 0;
  for (const char c : data) {
    low = (low + static_cast<unsigned char>(c)) % kModulus;
    high = (high + low) % kModulus;
  }
  return high << 16 | low;
}

// A zlib stream of one stored block; the data is smaller than such a block may be.
std::string zlibStored(const std::string& data) {
  const auto size = static_cast<uint16_t>(data.size());
  const auto complement = static_cast<uint16_t>(~size);
  std::string stream = "\x78\x01\x01";
  for (const uint16_t half : {size, complement}) {
    stream += static_cast<char>(half & 0xff);
    stream += static_cast<char>(half >> 8);
  }
  return stream + data + bigEndian(adler32(data));
}

// The picture that a snapshot shows: a small PNG; every variant is another picture.
std::string testPicture(unsigned variant) {
  // depth 8, grey, deflate, the standard filters, not interlaced
  const std::string format{8, 0, 0, 0, 0};
  return "\x89PNG\r\n\x1a\n" + chunk("IHDR" + bigEndian(kWidth) + bigEndian(kHeight) + format) +
         chunk("IDAT" + zlibStored(pixels(variant))) + chunk("IEND");
}

}  // namespace

Reply getDocument(ResourceCall& call) {
  const auto found = call.device.documents.find(call.request.path);
  return found == call.device.documents.end() ? unknownResource() : documentReply(found->second);
}

// The members sent replace those that the device has; a member that it does not have is refused, so
// that nothing grows.
Reply putDocument(ResourceCall& call) {
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

Reply getStatusXml(ResourceCall& call) {
  Reply reply;
  reply.contentType = "application/xml";
  reply.body = R"(<?xml version="1.0" encoding="UTF-8"?><DeviceStatus><requests>)" +
               std::to_string(call.device.requests) + "</requests></DeviceStatus>";
  return reply;
}

Reply getSnapshot(ResourceCall& call) {
  if (!call.device.streams.contains(call.ids[0])) return unknownResource();
  Reply reply;
  reply.contentType = "image/png";
  reply.body = testPicture(static_cast<unsigned>(call.ids[0]));
  return reply;
}

Reply acceptAnything(ResourceCall&) { return okReply(); }

Reply findAccessEvents(ResourceCall& call) {
  if (bodyObject(call.request).isNull()) return statusReply(Status::BadFormat, "notAnObject");
  const auto document = parseJson(R"({"AcsEvent": {"totalMatches": 2, "InfoList": [
    {"major": 5, "minor": 75, "employeeNo": "1001", "time": "2026-01-01T08:00:00Z"},
    {"major": 5, "minor": 76, "employeeNo": "1002", "time": "2026-01-01T08:05:00Z"}]}})");
  return documentReply(document.value());
}

Reply triggerOutput(ResourceCall& call) {
  const auto output = call.device.outputs.find(call.ids[0]);
  if (output == call.device.outputs.end()) return unknownResource();
  const Json::Value data = bodyObject(call.request)["IOPortData"];
  if (!data.isObject()) return statusReply(Status::BadFormat, "notATrigger");
  const std::string state = data.get("outputState", "").asString();
  if (state != "high" && state != "low") return statusReply(Status::BadContent, "unknownState");
  output->second = state;
  return okReply();
}

Reply getOutput(ResourceCall& call) {
  const auto output = call.device.outputs.find(call.ids[0]);
  if (output == call.device.outputs.end()) return unknownResource();
  Json::Value document;
  document["IOPortStatus"]["ioPortID"] = call.ids[0];
  document["IOPortStatus"]["ioState"] = output->second;
  return documentReply(document);
}

}  // namespace subdevice
