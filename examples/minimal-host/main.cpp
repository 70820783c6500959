// The protocol module on a platform of one's own: this program's requests, login, devices and bus;
// the rest of the platform is the library's. Serves GET /KAVRO/System/deviceInfo of one device that
// exists in this file only, one request after the other:
//   minimal-host PORT
// A definition here comes before the library's of the same name, so this is all that it takes.
#include <arpa/inet.h>
#include <qn-kavro/QNKAVROProtocol.h>
#include <qn-kavro/platform/config_mgr.h>
#include <qn-kavro/platform/device_cfg_bus.h>
#include <qn-kavro/platform/device_mgr.h>
#include <qn-kavro/platform/kavro_mgr_bus.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

// --- Requests: what the module reads from and answers on.

namespace QNHttpService {

class ExchangeState {
 public:
  int handle, socket;
  std::string url;
  int status = 200;
  bool answered = false;
  std::string head = {};
};

// Here one thread and one request at a time; a service with threads needs a lock, and a pointer
// that keeps the exchange alive.
static std::map<int, std::shared_ptr<ExchangeState>> exchanges;

CHttpExchange::CHttpExchange(int handle) {
  if (const auto found = exchanges.find(handle); found != exchanges.end()) state_ = found->second;
}
CHttpExchange::CHttpExchange(std::shared_ptr<ExchangeState> state) : state_(std::move(state)) {}
unsigned int CHttpExchange::getMethod() const { return HTTP_GET; }
const std::string& CHttpExchange::getUrl() const {
  static const std::string none;
  return state_ ? state_->url : none;
}
std::string CHttpExchange::getHead(const char*) const { return {}; }
void CHttpExchange::setHead(const char* name, const char* value) {
  if (state_) state_->head += std::string(name) + ": " + value + "\r\n";
}
void CHttpExchange::setMIME() {}
void CHttpExchange::setStatus(int status) {
  if (state_) state_->status = status;
}
int CHttpExchange::response(const void* data, int length) {
  if (!state_ || state_->answered) return HTTP_LINK_BROKEN;
  state_->answered = true;
  const std::string text = "HTTP/1.1 " + std::to_string(state_->status) + " -\r\n" + state_->head +
                           "Content-Length: " + std::to_string(length) +
                           "\r\nConnection: close\r\n\r\n" +
                           std::string(static_cast<const char*>(data), std::size_t(length));
  const bool sent = send(state_->socket, text.data(), text.size(), MSG_NOSIGNAL) >= 0;
  return sent ? length : HTTP_LINK_BROKEN;
}
int CHttpExchange::getHttpHandle() const { return state_ ? state_->handle : -1; }

}  // namespace QNHttpService

// --- Login and configuration: everybody is welcome, and sees device 1.

int QN_KAVROMgrBus_CheckDigest(tagDIGEST_RESULT& result, const char*, const tagDIGEST_REQUEST&,
                               int) {
  result.devIndex[0] = '1';
  return DIGEST_OK;
}

std::shared_ptr<const CUserCfg> QN_ConfigMgr_GetUserCfg() {
  struct User : CUserCfg {
    std::string realm = "KAVRO";
    bool isActivated() const override { return true; }
    const std::string& getRealm() const override { return realm; }
  };
  return std::make_shared<const User>();
}

std::shared_ptr<const CKAVROCfg> QN_ConfigMgr_GetKAVROCfg() {
  struct Mode : CKAVROCfg {
    int getKAVROMode() const override { return KAVRO_MODE_ONE_PORT; }
  };
  return std::make_shared<const Mode>();
}

std::shared_ptr<const CNovDevice> QN_DeviceMgr_GetDevice(std::string index) {
  struct Device : CNovDevice {
    std::string getDeviceIndex() const override { return "1"; }
  };
  return index == "1" ? std::make_shared<const Device>() : nullptr;
}

// --- The device: answers at once; a real bus calls back on a thread of its own.

int QN_DeviceCfgBus_ProcessAsyn(unsigned char, std::string url, const std::string&,
                                DeviceCfgCallBack callback, void* userData, int) {
  std::fprintf(stderr, "to the device: %s\n", url.c_str());
  std::string reply = R"({"DeviceInfo":{"deviceName":"Gate","deviceID":"1","model":"M1",)"
                      R"("serialNumber":"S1","macAddress":"02:00:00:00:00:01",)"
                      R"("firmwareVersion":"V1","firmwareReleasedDate":"2026-01-01",)"
                      R"("deviceType":"IPCamera"}})";
  callback(reply.data(), int(reply.size()), userData);
  return DEVCFGBUS_OK;
}

// --- The service: a request's first line is all that it looks at.

static void serve(int socket, int handle) {
  char text[4096] = {};
  char url[2048] = {};
  if (recv(socket, text, sizeof text - 1, 0) < 0 || std::sscanf(text, "GET %2047s", url) != 1)
    return;
  auto state = std::make_shared<QNHttpService::ExchangeState>(handle, socket, url);
  QNHttpService::exchanges[handle] = state;
  QNHttpService::stHttpRes request;
  request.exchange = std::make_shared<QNHttpService::CHttpExchange>(state);
  int bodyIsXml = 1, answersItself = 0;
  std::string body;
  const int status = QN_Protocol_HTTPProcess(bodyIsXml, body, answersItself, request);
  if (!answersItself) {
    request.exchange->setStatus(status);
    request.exchange->setHead("Content-Type", bodyIsXml ? "application/xml" : "application/json");
    request.exchange->response(body.data(), int(body.size()));
  }
  QNHttpService::exchanges.erase(handle);
}

int main(int, char** arguments) {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(uint16_t(std::atoi(arguments[1])));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener, 8) != 0) {
    std::perror("listen");
    return 1;
  }
  QN_Protocol_Init();
  for (int handle = 1;; ++handle) {
    const int connection = accept(listener, nullptr, nullptr);
    serve(connection, handle);
    close(connection);
  }
}
