// A protocol module whose requests for /stuck never return. Used by test_service.py.
#include <chrono>
#include <thread>

#include "include/QNKAVROProtocol.h"
#include "platform/http_service.h"

int QN_Protocol_Init() { return 1; }
int QN_Protocol_Uninit() { return 1; }

int QN_Protocol_HTTPProcess(int&, std::string&, int&, const QNHttpService::stHttpRes& request) {
  while (request.exchange->getUrl() == "/stuck") std::this_thread::sleep_for(std::chrono::hours(1));
  return 200;
}
