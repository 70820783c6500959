// See face_library.h.
#include "subdevice/face_library.h"

#include <boost/asio/ip/address.hpp>
#include <boost/asio/post.hpp>
#include <charconv>
#include <functional>
#include <optional>
#include <string_view>
#include <utility>

#include "subdevice/device.h"
#include "subdevice/digest_guard.h"
#include "subdevice/http_call.h"
#include "subdevice/resources.h"

namespace subdevice {
namespace {

using boost::asio::ip::tcp;

using PictureArrived = std::function<void(std::optional<std::string> picture)>;

struct PictureUrl {
  tcp::endpoint server;
  std::string host;  // address and port as they stand
  std::string target;
};

std::optional<PictureUrl> parseUrl(std::string_view url) {
  constexpr std::string_view kScheme = "http://";
  if (!url.starts_with(kScheme)) return {};
  url.remove_prefix(kScheme.size());
  const auto slash = url.find('/');
  if (slash == std::string_view::npos) return {};
  const std::string_view host = url.substr(0, slash);
  const auto colon = host.find(':');
  uint16_t port = 80;
  if (colon != std::string_view::npos)
    std::from_chars(host.data() + colon + 1, host.data() + host.size(), port);
  boost::system::error_code error;
  const auto address = boost::asio::ip::make_address(host.substr(0, colon), error);
  if (error) return {};
  return PictureUrl{{address, port}, std::string(host), std::string(url.substr(slash))};
}

// Fetches a picture from the URL that a gateway put into a face record, as a device does. Calls
// `arrived` once, later, on the context's thread: with the body of a 200, or with nothing when the
// URL is not "http://" with a numeric address, or no picture has come in time.
void fetchPicture(boost::asio::io_context& io, std::string_view url, PictureArrived arrived) {
  const auto parsed = parseUrl(url);
  if (!parsed) {
    boost::asio::post(io, [arrived = std::move(arrived)] { arrived({}); });
    return;
  }
  call(io, {parsed->server, "GET", parsed->target, parsed->host, ""},
       [arrived = std::move(arrived)](HttpCallAnswer answer) {
         if (answer.error || answer.status != 200) return arrived({});
         arrived(std::move(answer.body));
       });
}

std::string_view pictureType(const std::string& picture) {
  if (picture.starts_with("\x89PNG")) return "image/png";
  return picture.starts_with("BM") ? "image/bmp" : "image/jpeg";
}

}  // namespace

void FaceLibrary::add(const std::string& name, const Json::Value& record) {
  if (faces_.size() == kFaces) faces_.erase(faces_.begin());
  const int id = nextId_++;
  const std::string url = record.get("faceURL", "").asString();
  faces_[id] = {name, record, "", url.empty() ? "none" : "fetching"};
  if (url.empty()) return;
  fetchPicture(io_, url, [this, id](std::optional<std::string> picture) {
    const auto face = faces_.find(id);
    if (face == faces_.end()) return;
    face->second.state = picture ? "stored" : "failed";
    face->second.picture = std::move(picture).value_or("");
  });
}

Json::Value FaceLibrary::document() const {
  Json::Value document;
  Json::Value& list = document["FaceRecordList"] = Json::arrayValue;
  for (const auto& [id, face] : faces_) {
    Json::Value& entry = list.append({})["FaceRecord"];
    entry["id"] = id;
    entry["name"] = face.name;
    entry["record"] = face.record;
    entry["pictureState"] = face.state;
    entry["pictureBytes"] = static_cast<Json::UInt64>(face.picture.size());
    entry["pictureMD5"] = md5Hex(face.picture);
  }
  return document;
}

const std::string* FaceLibrary::picture(int id) const {
  const auto face = faces_.find(id);
  return face == faces_.end() || face->second.picture.empty() ? nullptr : &face->second.picture;
}

bool FaceLibrary::removePicture(const std::string& name) {
  return std::erase_if(faces_, [&](const auto& entry) { return entry.second.name == name; }) > 0;
}

// Two forms, which may come together: the record as "FaceInfo", or its members at the top.
Reply addFace(ResourceCall& call) {
  const Json::Value document = bodyObject(call.request);
  if (document.isNull()) return statusReply(Status::BadFormat, "notAnObject");
  const bool nested = document["FaceInfo"].isObject();
  const bool flat = document["FDID"].isString();
  if (!nested && !flat) return statusReply(Status::BadContent, "notAFaceRecord");
  if (nested) {
    const Json::Value& info = document["FaceInfo"];
    call.device.faces.add(info.get("employeeNo", "").asString(), info);
  }
  if (flat) call.device.faces.add(document.get("name", "").asString(), document);
  return okReply();
}

Reply setUpFace(ResourceCall& call) {
  const Json::Value document = bodyObject(call.request);
  if (!document["FPID"].isString()) return statusReply(Status::BadContent, "notAFaceSetUp");
  const std::string name = document["FPID"].asString();
  if (document.get("deleteFP", false).asBool())
    return call.device.faces.removePicture(name) ? okReply() : unknownResource();
  call.device.faces.add(name, document);
  return okReply();
}

Reply listFaces(ResourceCall& call) { return documentReply(call.device.faces.document()); }

Reply getFacePicture(ResourceCall& call) {
  const std::string* picture = call.device.faces.picture(call.ids[0]);
  if (picture == nullptr) return unknownResource();
  Reply reply;
  reply.contentType = pictureType(*picture);
  reply.body = *picture;
  return reply;
}

}  // namespace subdevice
