// Routes of the translating handlers: which URLs and methods a handler serves and which of its
// converters translate them. Each handler has one constexpr table and hands it to RoutedCfg.
#pragma once

#include <json/json.h>

#include <initializer_list>
#include <span>
#include <string>
#include <string_view>

#include "devcfg/dev_cfg_base.h"
#include "document/write_xml.h"
#include "json/value.h"

namespace QNKAVROProtocol {

// What a converter returns for a body that is not what its resource takes.
inline constexpr int kBodyRefused = 1;

struct ClientRequest {
  const std::string& url;
  unsigned int method;
  std::string_view body;  // empty when there is none
  const std::string& devIndex;
};

// What a request converter fills.
struct DeviceRequest {
  std::string& url;
  std::string& body;
};

struct DeviceReply {
  qn::json::Value document;
  const std::string& url;  // the client's
  int method;
  const CHttpExchange& exchange;
};

// 0, or anything else to refuse the request.
using RequestConverter = int (*)(DeviceRequest& out, const ClientRequest& in);
// 0, or an argument of getPtoErrorCode with the body as it was.
using ReplyConverter = int (*)(std::string& body, const DeviceReply& reply);

// The methods a route serves, as HttpMethod codes.
class Methods {
 public:
  constexpr Methods(std::initializer_list<unsigned int> methods) {
    for (const unsigned int method : methods) bits_ |= 1U << method;
  }
  constexpr bool has(unsigned int method) const {
    return method < 32 && ((bits_ >> method) & 1U) != 0;
  }

 private:
  unsigned int bits_ = 0;
};

// The client's URL of a resource: a path in which each "%d" stands for a number.
class UrlPattern {
 public:
  consteval UrlPattern(const char* path)
      : path_(path), start_(path_.substr(0, path_.find("%d"))), numbers_(countNumbers(path_)) {}
  constexpr operator std::string_view() const { return path_; }
  // How many it has.
  constexpr std::size_t numbers() const { return numbers_; }
  bool matches(std::string_view url) const;

 private:
  static constexpr std::size_t countNumbers(std::string_view path) {
    std::size_t count = 0;
    for (auto at = path.find("%d"); at != path.npos; at = path.find("%d", at + 2)) ++count;
    return count;
  }

  std::string_view path_;
  std::string_view start_;  // before the first number
  std::size_t numbers_;
};

struct Route {
  UrlPattern pattern;
  Methods methods;
  RequestConverter request;
  ReplyConverter reply;
  // For the reference: what the resource is called, and the tables of its documents, null for one
  // that no table makes.
  std::string_view title;
  const table::Row* body = nullptr;    // of PUT and POST
  const table::Row* answer = nullptr;  // to GET and POST
};

// A handler that is a table of routes. The first route whose pattern matches decides.
class RoutedCfg : public CDevCfgBase {
 public:
  int checkUrlAndMethod(const std::string& url, unsigned int method) override;
  int covertUrlandBody(std::string& jsonUrl, std::string& jsonBody, const stHttpRes& request,
                       const std::string& devIndex) override;
  int covertRspBody(std::string& body, const Json::Value& reply, const std::string& url, int method,
                    const CHttpExchange& exchange) override;
  std::span<const Route> routes() const { return routes_; }
  // The same for a reply whichever library has read it.
  int convertReply(std::string& body, const DeviceReply& reply) const;

 protected:
  explicit RoutedCfg(std::span<const Route> routes) : routes_(routes) {}
  ~RoutedCfg() = default;

 private:
  std::span<const Route> routes_;
};

// The device's path of a resource that it has under the client's URL, which matched `pattern`: the
// same, with at most two numbers in plain decimal form.
std::string devicePath(std::string_view url, UrlPattern pattern);

// The number of a URL that matched a pattern with one.
int urlNumber(std::string_view url, std::string_view pattern);

// The device's number for a client's channel id: main stream 1 of the channel for ids up to 100,
// the id itself above (channel and stream).
constexpr int deviceChannelId(int id) { return id > 100 ? id : id * 100 + 1; }

// Makes `body` the document of the reply's member `root`: 0, or BUS_INTERNAL_FAILURE with the body
// as it was.
int writeReply(std::string& body, const table::Row& root, const qn::json::Value& reply);

// Reply of commands: the success document, whatever the device's own reply says.
int answerSuccess(std::string& body, const DeviceReply& reply);

}  // namespace QNKAVROProtocol
