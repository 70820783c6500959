// See face_library.h.
#include "subdevice/face_library.h"

#include <optional>
#include <utility>

#include "subdevice/device.h"
#include "subdevice/digest_guard.h"
#include "subdevice/picture_fetch.h"
#include "subdevice/resources.h"

namespace subdevice {
namespace {

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
Reply addFace(Call& call) {
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

Reply setUpFace(Call& call) {
  const Json::Value document = bodyObject(call.request);
  if (!document["FPID"].isString()) return statusReply(Status::BadContent, "notAFaceSetUp");
  const std::string name = document["FPID"].asString();
  if (document.get("deleteFP", false).asBool())
    return call.device.faces.removePicture(name) ? okReply() : unknownResource();
  call.device.faces.add(name, document);
  return okReply();
}

Reply listFaces(Call& call) { return documentReply(call.device.faces.document()); }

Reply getFacePicture(Call& call) {
  const std::string* picture = call.device.faces.picture(call.ids[0]);
  if (picture == nullptr) return unknownResource();
  Reply reply;
  reply.contentType = pictureType(*picture);
  reply.body = *picture;
  return reply;
}

}  // namespace subdevice
