// The HTTP service's side of a request: the exchange that the module reads from and answers on.
// The module's handlers use it on the service's threads and, rebuilt from its handle, on the bus
// threads; the reference service is gateway/http.
#pragma once

#include <memory>
#include <string>

namespace QNHttpService {

class ExchangeState;  // the service's own; opaque here

// Method codes of CHttpExchange::getMethod(). Requests with any other method are answered by the
// service itself (501) and never reach the module.
enum HttpMethod : unsigned int {
  HTTP_GET = 0,
  HTTP_PUT = 1,
  HTTP_POST = 2,
  HTTP_DELETE = 3,
  HTTP_HEAD = 4,
  HTTP_OPTIONS = 5,
  HTTP_PATCH = 6,
};

// What response() returns when the client can no longer be reached or was answered already:
// the bit pattern 0xF0F0F0F0.
inline constexpr int HTTP_LINK_BROKEN = -252645136;

// One HTTP exchange: a request and its one answer.
//
// Several objects may stand for the same exchange; every operation may be called on any thread and
// none blocks. An object on a handle that is no longer live is harmless: every text is empty, the
// method is GET, the setters do nothing and response() returns HTTP_LINK_BROKEN. References
// returned here stay valid as long as the object.
class CHttpExchange {
 public:
  // Finds the exchange by its handle (see getHttpHandle).
  explicit CHttpExchange(int handle);
  // Used by the service when it hands a request over.
  explicit CHttpExchange(std::shared_ptr<ExchangeState> state);

  unsigned int getMethod() const;
  // Path and query exactly as the client sent them; an absolute-form target is reduced to them.
  const std::string& getUrl() const;
  // A request header by its name in any case; empty when absent, and once a stream has started.
  // "X-Forwarded-For" is the client address as the service sees it: the client's own header counts
  // only from a trusted proxy.
  std::string getHead(const char* name) const;

  // Sets a header of the answer, replacing one of the same name. Content-Length, Connection and
  // Date are the service's. Names or values with CR, LF or NUL are refused: nothing is set.
  void setHead(const char* name, const char* value);
  // Makes the answer a stream: Content-Type "multipart/mixed; boundary=boundary", no length, and
  // the connection is closed at its end.
  void setMIME();
  void setStatus(int status);

  // Sends the answer: the status, the headers set so far and `length` bytes of `data`, which are
  // copied before the call returns. Returns length. An exchange is answered once: a later call
  // sends nothing and returns HTTP_LINK_BROKEN.
  //
  // On a stream response(nullptr, 0) sends the head; each later call queues one part and returns
  // its length when the whole part was accepted, 0 when the stream's queue is full (nothing of the
  // part is sent then), HTTP_LINK_BROKEN when the connection is gone. Parts never interleave.
  int response(const void* data, int length);

  // Positive, from a counter; never reused while anything may still hold it. -1 without exchange.
  int getHttpHandle() const;

 private:
  std::shared_ptr<ExchangeState> state_;
};

// A request as the service hands it to the module. The body belongs to the service and is valid
// until QN_Protocol_HTTPProcess returns.
struct stHttpRes {
  std::shared_ptr<CHttpExchange> exchange;
  const char* body = nullptr;  // null when the request has none
  int bodyLength = 0;
  // Face-library requests with a multipart body: `body` holds the JSON part's bytes followed by
  // the picture part's bytes; hasMimePart is set when the picture part names its type.
  bool hasMimePart = false;
  std::string mimeType;
};

}  // namespace QNHttpService
