// CDeviceKAVROPto, the last handler of the chain: hands every other /KAVRO/ request to the user's
// sub-device as it came and the device's answer back. Face-library requests have their picture
// stored first (face_picture.cpp), since devices take a URL and not the bytes.
#pragma once

#include <json/json.h>

#include <string>

#include "platform/device_cfg_bus.h"
#include "protocol/protocol_base.h"

namespace QNKAVROProtocol {

// Made for each request.
class CDeviceKAVROPto final : public CProtocolBase {
 public:
  CDeviceKAVROPto() = default;
  ~CDeviceKAVROPto() = default;

  int checkUrlAndMethod(const std::string& url, unsigned int method) override;
  int procProtocol(int& bodyIsXml, std::string& response, int& answered, const stHttpRes& request,
                   const std::string& devIndex) override;
  // Sets the time-out of the resource and the extra data; 1, or 0 when memory ran out.
  virtual int createUserData(tagDEVCFG_USERDATA& userData, std::string& body, int& timeoutMs,
                             const CHttpExchange& exchange);

  // The bus's callback: answers the client and frees the record. -1, with nothing done, when the
  // arguments are unusable.
  static int deviceKAVROCallBack(void* data, int length, void* userData);

  // Stores the picture of a face-library request and puts its URL into the body. A fault is
  // answered here, with `answered` set; the result is always 1 and the request is forwarded anyway.
  int procPssUrlReq(std::string& body, int& answered, const stHttpRes& request);
  // Stores the picture that follows `document` in the request's body. 1 with m_strFaceUrl set, or
  // an error code with `answered` set.
  int procGenerateUrl(int& answered, const stHttpRes& request, const Json::Value& document);
  int proRspFollow(int& status, std::string& body, const std::string& url,
                   const CHttpExchange& exchange);

 private:
  unsigned int prepareFaceRecord(std::string& body, int& answered, const stHttpRes& request);
  unsigned int prepareFaceSetUp(std::string& body, int& answered, const stHttpRes& request);
  // Stores the picture and sets holder["faceURL"], `holder` being in `document`.
  unsigned int addFaceUrl(Json::Value& holder, std::string& body, int& answered,
                          const stHttpRes& request, const Json::Value& document);
  unsigned int storePicture(const std::string& picture, const std::string& clientUrl);

  std::string m_strFaceUrl;
};

}  // namespace QNKAVROProtocol
