// See device_kavro_pto.h. Here: the pictures of the face library.
#include <algorithm>
#include <array>
#include <string_view>
#include <utility>
#include <vector>

#include "json/text.h"
#include "passthrough/device_kavro_pto.h"
#include "platform/base_library.h"
#include "platform/config_mgr.h"
#include "protocol/error_code.h"
#include "protocol/log.h"

namespace QNKAVROProtocol {
namespace {

constexpr const char* kFaceRecordUrl = "/KAVRO/Intelligent/FDLib/FaceDataRecord";
constexpr const char* kFaceSetUpUrl = "/KAVRO/Intelligent/FDLib/FDSetUp";
constexpr int kStoreFull = 3610;
constexpr unsigned int kDone = 1;

using qn::json::parseJson;
using qn::json::writeJson;

// The operations that the log names.
constexpr const char* kUrlRequest = "procPssUrlReq";
constexpr const char* kGenerateUrl = "procGenerateUrl";

constexpr std::array<std::string_view, 3> kPictureTypes = {"image/jpeg", "image/png", "image/bmp"};
constexpr std::array<const char*, 4> kFlatKeys = {"faceLibType", "FDID", "name", "bornTime"};

bool isFlatForm(const Json::Value& document) {
  return std::all_of(kFlatKeys.begin(), kFlatKeys.end(),
                     [&](const char* key) { return document[key].isString(); });
}

bool isAcceptedPicture(const stHttpRes& request) {
  return !request.hasMimePart || std::find(kPictureTypes.begin(), kPictureTypes.end(),
                                           request.mimeType) != kPictureTypes.end();
}

unsigned int badBody(const std::string& body) {
  QN_LOG_IN(kUrlRequest, WLOG_ERROR, "param error: %s", body.c_str());
  return ERROR_BAD_BODY;
}

// The port of the picture store must be the gateway's own before a picture is handed to it.
unsigned int checkUploadPort(const CNetworkCfg& network) {
  _NIC_INFO_V4 address{};
  if (network.getIPv4ByProtocol(address, DEVICE_PROTOCOL_KAVRO) != 0) {
    QN_LOG_IN(kGenerateUrl, WLOG_ERROR, "Get ip error");
    return ERROR_INTERNAL;
  }
  std::vector<int> pids;
  if (DriverCif_GetProcessPid(pids) != 0) {
    QN_LOG_IN(kGenerateUrl, WLOG_ERROR, "Get pid error");
    return ERROR_INTERNAL;
  }
  if (CheckPortOccupy(pids, address.address, network.getPssUploadPort(), 1) != 0) {
    QN_LOG_IN(kGenerateUrl, WLOG_ERROR, "port conflict error");
    return ERROR_UPLOAD_FAILED;
  }
  return kDone;
}

}  // namespace

int CDeviceKAVROPto::procPssUrlReq(std::string& body, int& answered, const stHttpRes& request) {
  const auto& url = request.exchange->getUrl();
  unsigned int error = kDone;
  if (cmpURL(url, kFaceRecordUrl)) {
    error = prepareFaceRecord(body, answered, request);
  } else if (cmpURL(url, kFaceSetUpUrl)) {
    error = prepareFaceSetUp(body, answered, request);
  }
  if (error == kDone) return 1;

  answered = 1;
  const auto response = getResponseByError(static_cast<int>(error), url);
  request.exchange->setHead("Content-Type", "application/json");
  request.exchange->setStatus(getHttpStatusCodeByErrorNo(error));
  request.exchange->response(response.data(), static_cast<int>(response.size()));
  return 1;
}

// A record comes as an object, in the flat form, or as both; each form gets its own upload.
unsigned int CDeviceKAVROPto::prepareFaceRecord(std::string& body, int& answered,
                                                const stHttpRes& request) {
  Json::Value document;
  if (!parseJson(body, document) || !document.isObject()) return badBody(body);
  const bool flat = isFlatForm(document);
  if (document.isMember("FaceInfo") && document["FaceInfo"].isObject()) {
    Json::Value& info = document["FaceInfo"];
    if (!info["employeeNo"].isString()) return badBody(body);
    if (info.isMember("faceURL")) return kDone;
    const auto error = addFaceUrl(info, body, answered, request, document);
    if (error != kDone) return error;
  } else if (!flat) {
    return badBody(body);
  }
  if (!flat || document.isMember("faceURL")) return kDone;
  return addFaceUrl(document, body, answered, request, document);
}

unsigned int CDeviceKAVROPto::prepareFaceSetUp(std::string& body, int& answered,
                                               const stHttpRes& request) {
  Json::Value document;
  if (!parseJson(body, document) || !document.isObject()) return badBody(body);
  const bool hasUrl = document.isMember("faceURL");
  if (!std::as_const(document)["FPID"].isString() || (hasUrl && !document["faceURL"].isString())) {
    return badBody(body);
  }
  const Json::Value& deletion = std::as_const(document)["deleteFP"];
  if (hasUrl || (deletion.isBool() && deletion.asBool())) return kDone;
  return addFaceUrl(document, body, answered, request, document);
}

unsigned int CDeviceKAVROPto::addFaceUrl(Json::Value& holder, std::string& body, int& answered,
                                         const stHttpRes& request, const Json::Value& document) {
  const auto error = static_cast<unsigned int>(procGenerateUrl(answered, request, document));
  if (error != kDone) return error;
  holder["faceURL"] = m_strFaceUrl;
  body = writeJson(document);
  return kDone;
}

int CDeviceKAVROPto::procGenerateUrl(int& answered, const stHttpRes& request,
                                     const Json::Value& document) {
  const auto fault = [&answered](unsigned int error) {
    answered = 1;
    return static_cast<int>(error);
  };
  QN_LOG(WLOG_DUMP, "[%s]mime type", request.mimeType.c_str());
  if (!isAcceptedPicture(request)) {
    QN_LOG(WLOG_ERROR, "[%s]unsupportedImageFormat", request.mimeType.c_str());
    return fault(ERROR_PICTURE_TYPE);
  }
  const auto text = writeJson(document);
  std::string picture;
  getBinPart(picture, request.body, request.bodyLength, text);
  QN_LOG(WLOG_INFO, "[%d][%d][%s] json len,[%d] pic len", request.bodyLength,
         static_cast<int>(text.size()), text.c_str(), static_cast<int>(picture.size()));
  if (picture.empty() || picture == "undefined") {
    QN_LOG(WLOG_ERROR, "param error no img: %s",
           std::string(request.body, static_cast<std::size_t>(request.bodyLength)).c_str());
    return fault(ERROR_NO_RESOURCES);
  }
  const auto error = storePicture(picture, request.exchange->getUrl());
  return error == kDone ? 1 : fault(error);
}

unsigned int CDeviceKAVROPto::storePicture(const std::string& picture,
                                           const std::string& clientUrl) {
  const auto network = QN_ConfigMgr_GetNetworkCfg();
  if (!network) {
    QN_LOG_IN(kGenerateUrl, WLOG_ERROR, "get network config ptr fail");
    return ERROR_INTERNAL;
  }
  const auto error = checkUploadPort(*network);
  if (error != kDone) return error;
  int storageError = 0;
  std::string pictureUrl;
  if (!network->uploadFacetoPss(storageError, pictureUrl, picture, clientUrl)) {
    return storageError == kStoreFull ? ERROR_STORE_FULL : ERROR_UPLOAD_FAILED;
  }
  m_strFaceUrl = pictureUrl;
  return kDone;
}

}  // namespace QNKAVROProtocol
