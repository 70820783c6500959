// A few resources of other content types, so that everything a gateway may pass through can be
// tried: XML, snapshots. And the IO outputs, switched by a trigger, and readable so that a test
// sees what a trigger did.
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

bool* outputOf(ResourceCall& call) {
  const int id = call.ids[0];
  return id >= 1 && id <= kIoOutputs ? &call.device.outputsHigh[static_cast<std::size_t>(id - 1)]
                                     : nullptr;
}

}  // namespace

// Both lists of ports in one document.
Reply listIoPorts(ResourceCall& call) {
  Documents& documents = call.device.documents;
  Reply reply;
  reply.body = R"({"IOPortList":{"IOInputPortList":)" + documents.entriesOf(kIoInputsPath) +
               R"(,"IOOutputPortList":)" + documents.entriesOf(kIoOutputsPath) + "}}";
  return reply;
}

Reply getStatusXml(ResourceCall& call) {
  Reply reply;
  reply.contentType = "application/xml";
  reply.body = R"(<?xml version="1.0" encoding="UTF-8"?><DeviceStatus><requests>)" +
               std::to_string(call.device.requests) + "</requests></DeviceStatus>";
  return reply;
}

Reply getSnapshot(ResourceCall& call) {
  if (!call.device.documents.has(kStreamsPath, call.ids[0])) return unknownResource();
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
  bool* const high = outputOf(call);
  if (high == nullptr) return unknownResource();
  const Json::Value data = bodyObject(call.request)["IOPortData"];
  if (!data.isObject()) return statusReply(Status::BadFormat, "notATrigger");
  const std::string state = data.get("outputState", "").asString();
  if (state != "high" && state != "low") return statusReply(Status::BadContent, "unknownState");
  *high = state == "high";
  return okReply();
}

Reply getOutput(ResourceCall& call) {
  const bool* const high = outputOf(call);
  if (high == nullptr) return unknownResource();
  Json::Value document;
  document["IOPortStatus"]["ioPortID"] = call.ids[0];
  document["IOPortStatus"]["ioState"] = *high ? "high" : "low";
  return documentReply(document);
}

}  // namespace subdevice
