// The device-configuration bus: JSON requests to sub-devices. Called by the configuration pipeline
// and the pass-through; the reference implementation is gateway/devicebus.
#pragma once

#include <string>

// One request in flight. Created by the module for each request and handed to the bus as its user
// data; the bus never looks inside. `data` belongs to the record.
struct tagDEVCFG_USERDATA {
  int httpHandle = 0;  // CHttpExchange::getHttpHandle() of the request; -1: nobody to answer
  int dataLength = 0;
  char* data = nullptr;         // extra bytes of a handler, new[]; freed with the record
  const void* owner = nullptr;  // the issuing handler; only tested for null, never dereferenced

  tagDEVCFG_USERDATA() = default;
  tagDEVCFG_USERDATA(const tagDEVCFG_USERDATA&) = delete;
  tagDEVCFG_USERDATA& operator=(const tagDEVCFG_USERDATA&) = delete;
  ~tagDEVCFG_USERDATA() { delete[] data; }
};

// Refusals of the bus, all before anything is sent; 0 means accepted.
enum DeviceCfgBusResult : int {
  DEVCFGBUS_OK = 0,
  DEVCFGBUS_BAD_ARGUMENT = 1,  // a method or URL that cannot stand in a request line
  DEVCFGBUS_STOPPING = 257,
  DEVCFGBUS_QUEUE_FULL = 260,     // as many requests as the device may have are waiting
  DEVCFGBUS_UNKNOWN_DEVICE = 515  // the URL names no configured device
};

// data: the reply, never null, not NUL-terminated, valid during the call only. length: its bytes.
// Must not block; must not throw. The result is ignored.
using DeviceCfgCallBack = int (*)(void* data, int length, void* userData);

// Sends a request to the device that the LAST devIndex parameter of jsonUrl names (URL-decoded).
// jsonUrl goes out as it stands; the method is a code of CHttpExchange::getMethod(); the body's
// Content-Type is found from the body.
//
// Returns DEVCFGBUS_OK when the request was accepted: the callback then runs exactly once, on a bus
// thread, possibly before this call returns to the caller's thread's next statement, with the
// device's reply or, on time-out, connection failure or shutdown, with a JSON status document of
// the platform's own (integers "statusCode" and "errorCode", texts "statusString" and
// "subStatusCode"). On any other result the callback never runs and userData stays the caller's.
// Any thread; does not block.
int QN_DeviceCfgBus_ProcessAsyn(unsigned char method, std::string jsonUrl,
                                const std::string& jsonBody, DeviceCfgCallBack callback,
                                void* userData, int timeoutMs);

// The same, waiting for the reply: blocks at most timeoutMs. Returns 0 with the device's reply,
// or a refusal, or -1 when the device gave no reply; `reply` is untouched then. Never call it on a
// bus thread or from a bus callback.
int QN_DeviceCfgBus_ProcessSyn(unsigned char method, std::string jsonUrl,
                               const std::string& jsonBody, std::string& reply, int timeoutMs);
