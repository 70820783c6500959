// A real HTTP service on a free port, a process function that each test scripts, and a client that
// sends raw bytes, for the tests of the HTTP service.
#pragma once

#include <cctype>
#include <cstdlib>
#include <system_error>

#include "gateway/http/http_service.h"
#include "platform/http_service.h"
#include "tests/contract/events.h"
#include "tests/contract/ports.h"
#include "tests/contract/socket.h"

namespace qn {

using QNHttpService::CHttpExchange;
using QNHttpService::HTTP_LINK_BROKEN;
using QNHttpService::stHttpRes;
using namespace std::chrono_literals;

inline std::string get(const std::string& url, const std::string& method = "GET") {
  return method + " " + url + " HTTP/1.1\r\nHost: h\r\n\r\n";
}
inline const std::string kGet = get("/a?b=1");

struct HttpAnswer {
  int status = 0;    // 0: none came
  std::string head;  // lower case
  std::string body;

  bool has(std::string_view text) const { return head.find(text) != std::string::npos; }
};

// Has sent something once it is made. Every read ends after 10 s.
class RawClient {
 public:
  explicit RawClient(uint16_t port, std::string_view sent = {}, int receiveBuffer = 0) {
    const auto set = [this](int option, const auto& value) {
      ::setsockopt(socket_.descriptor(), SOL_SOCKET, option, &value, sizeof value);
    };
    if (receiveBuffer > 0) set(SO_RCVBUF, receiveBuffer);
    set(SO_RCVTIMEO, timeval{10, 0});
    set(SO_SNDTIMEO, timeval{10, 0});
    connected_ = socket_.connect(port);
    if (connected_) send(sent);
  }

  bool connected() const { return connected_; }
  // The client is gone, without a word when `abort`.
  void reset(bool abort = false) {
    const linger now{abort, 0};
    ::setsockopt(socket_.descriptor(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
    socket_.close();
  }
  void endSending() { socket_.shutDown(SHUT_WR); }
  bool send(std::string_view bytes) { return socket_.send(bytes); }

  // The next answer, with the body its Content-Length announces (none after HEAD).
  HttpAnswer answer(bool headOnly = false) {
    HttpAnswer result;
    std::size_t end;
    while ((end = input_.find("\r\n\r\n")) == std::string::npos) {
      if (!receive()) return result;
    }
    result.head = input_.substr(0, end + 2);
    for (char& c : result.head) c = static_cast<char>(std::tolower(c));
    input_.erase(0, end + 4);
    const std::size_t length = result.head.find("content-length: ");
    const std::size_t size =
        length == std::string::npos || headOnly ? 0 : std::stoul(result.head.substr(length + 16));
    while (input_.size() < size) {
      if (!receive()) return HttpAnswer();
    }
    result.body = input_.substr(0, size);
    input_.erase(0, size);
    result.status = std::atoi(result.head.substr(9, 3).c_str());
    return result;
  }

  HttpAnswer ask(std::string_view request) {
    send(request);
    return answer();
  }

  // At least `count` bytes, or what came before the end.
  std::string read(std::size_t count) {
    while (input_.size() < count && receive()) {
    }
    return std::exchange(input_, {});
  }

  // The server closed after everything that was read; false when it did not within 10 s.
  bool closedByServer() {
    while (receive()) {
    }
    return socket_.ended();
  }

 private:
  bool receive() { return socket_.receive(input_); }

  Socket socket_;
  bool connected_ = false;
  std::string input_;
};

// What the module does with a request in this test.
using Script = std::function<int(int& bodyIsXml, std::string& body, int& asyncReply,
                                 const stHttpRes& request)>;

inline Script& currentScript() {
  static Script script;
  return script;
}

inline int runScript(int& bodyIsXml, std::string& body, int& asyncReply, const stHttpRes& request) {
  return currentScript()(bodyIsXml, body, asyncReply, request);
}

class HttpFixture : public testing::Test {
 protected:
  HttpFixture() {
    options_.port = 0;
    // By default: says what came.
    answering([](const stHttpRes& request) {
      return request.exchange->getUrl() + "|" +
             (request.body ? std::string(request.body, std::size_t(request.bodyLength)) : "");
    });
  }
  ~HttpFixture() override { stop(); }

  // Before the first client.
  void script(Script script) { currentScript() = std::move(script); }
  // Every answer is 200 with this text.
  void answering(std::function<std::string(const stHttpRes&)> text) {
    script([text](int&, std::string& body, int&, const stHttpRes& request) {
      body = text(request);
      return 200;
    });
  }
  // Requests for this path are left to the test, others answered with 200 at once; "": all.
  void leaving(const std::string& path = {}) {
    script([this, path](int&, std::string&, int& asyncReply, const stHttpRes& request) {
      asyncReply = path.empty() || request.exchange->getUrl() == path;
      if (asyncReply == 1) handle_ = request.exchange->getHttpHandle();
      return 200;
    });
  }
  int waitForHandle();
  static int answer(int handle, std::string_view text) {
    return CHttpExchange(handle).response(text.data(), static_cast<int>(text.size()));
  }
  HttpService& start() {
    reactors_.start();
    return listen();
  }
  HttpService& listen() {
    service_ = std::make_unique<HttpService>(reactors_, workers_, options_, entry_, bounds_, own_);
    service_->listen();
    return *service_;
  }
  void stop() {
    service_.reset();
    pool_.stop();
    reactors_.stop();
  }
  uint16_t port() const { return service_->port(); }
  HttpAnswer ask(std::string_view request) { return RawClient(port()).ask(request); }

  HttpOptions options_;
  ModuleEntry entry_{runScript};
  HttpBounds bounds_;
  std::vector<OwnResource> own_;
  Reactors reactors_{2};
  WorkerPool pool_{2, 2};
  HttpWorkers workers_{pool_, pool_};
  std::unique_ptr<HttpService> service_;
  std::atomic<int> handle_{0};  // of the last request that was left
};

inline int HttpFixture::waitForHandle() {
  int handle = 0;
  EXPECT_TRUE(eventually([&] { return (handle = handle_.exchange(0)) != 0; }));
  return handle;
}

}  // namespace qn
