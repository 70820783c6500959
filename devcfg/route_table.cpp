#include "devcfg/route_table.h"

#include <algorithm>

#include "protocol/error_code.h"
#include "protocol/url_numbers.h"

namespace QNKAVROProtocol {
namespace {

const Route* find(std::span<const Route> routes, const std::string& url) {
  const auto route =
      std::ranges::find_if(routes, [&](const Route& each) { return each.pattern.matches(url); });
  return route == routes.end() ? nullptr : &*route;
}

std::string_view bodyOf(const stHttpRes& request) {
  if (request.body == nullptr || request.bodyLength <= 0) return {};
  return {request.body, static_cast<std::size_t>(request.bodyLength)};
}

}  // namespace

// Most URLs are of other resources, and differ before the first number.
bool UrlPattern::matches(std::string_view url) const {
  if (!url.starts_with(start_)) return false;
  return numbers_ == 0
             ? QNBase::CRESTfulProtocol::cmpURL(url, path_)
             : QNBase::CRESTfulProtocol::cmpURLWithInt(url, path_, static_cast<int>(numbers_));
}

int RoutedCfg::checkUrlAndMethod(const std::string& url, unsigned int method) {
  const Route* route = find(routes_, url);
  return route != nullptr && route->methods.has(method) ? 0 : kDeclined;
}

int RoutedCfg::covertUrlandBody(std::string& jsonUrl, std::string& jsonBody,
                                const stHttpRes& request, const std::string& devIndex) {
  const std::string& url = request.exchange->getUrl();
  const unsigned int method = request.exchange->getMethod();
  const Route* route = find(routes_, url);
  if (route == nullptr) return kDeclined;
  DeviceRequest out{jsonUrl, jsonBody};
  const int result = route->request(out, {url, method, bodyOf(request), devIndex});
  // Judged last: one of the converters asks the device before its method is refused.
  return route->methods.has(method) ? result : kDeclined;
}

int RoutedCfg::covertRspBody(std::string& body, const Json::Value& reply, const std::string& url,
                             int method, const CHttpExchange& exchange) {
  return convertReply(body, {reply, url, method, exchange});
}

int RoutedCfg::convertReply(std::string& body, const DeviceReply& reply) const {
  const Route* route = find(routes_, reply.url);
  if (route == nullptr || !route->methods.has(static_cast<unsigned int>(reply.method))) {
    return kDeclined;
  }
  return route->reply(body, reply);
}

std::string devicePath(std::string_view url, UrlPattern of) {
  int numbers[2] = {};
  const std::span found(numbers, of.numbers());
  std::string_view pattern = of;
  readUrlNumbers(url, pattern, found);
  std::string path;
  for (const int number : found) {
    const std::size_t at = pattern.find("%d");
    path.append(pattern.substr(0, at)).append(std::to_string(number));
    pattern.remove_prefix(at + 2);
  }
  return path.append(pattern);
}

int urlNumber(std::string_view url, std::string_view pattern) {
  int number = 0;
  readUrlNumbers(url, pattern, {&number, 1});
  return number;
}

int writeReply(std::string& body, const table::Row& root, const qn::json::Value& reply) {
  return table::writeDocument(body, root, reply) == nullptr ? 0 : BUS_INTERNAL_FAILURE;
}

int answerSuccess(std::string& body, const DeviceReply& reply) {
  body = CProtocolBase::getResponseByError(ERROR_OK, reply.url);
  return 0;
}

}  // namespace QNKAVROProtocol
