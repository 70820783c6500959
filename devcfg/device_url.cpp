#include "devcfg/device_url.h"

namespace QNKAVROProtocol {
namespace {

constexpr std::size_t kUrlMax = 2047;

std::string joined(std::string_view path, std::string_view query, std::string_view devIndex) {
  std::string url;
  url.reserve(path.size() + query.size() + devIndex.size());
  url.append(path).append(query).append(devIndex);
  if (url.size() > kUrlMax) url.resize(kUrlMax);
  return url;
}

}  // namespace

std::string deviceUrl(std::string_view path, std::string_view devIndex) {
  return joined(path, "?devIndex=", devIndex);
}

std::string deviceJsonUrl(std::string_view path, std::string_view devIndex) {
  return joined(path, "?format=json&devIndex=", devIndex);
}

}  // namespace QNKAVROProtocol
