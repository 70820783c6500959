#include "devcfg/device_url.h"

namespace QNKAVROProtocol {
namespace {

constexpr std::size_t kUrlMax = 2047;
constexpr std::string_view kQuery = "?format=json&devIndex=";

}  // namespace

std::string deviceJsonUrl(std::string_view path, std::string_view devIndex) {
  std::string url;
  url.reserve(path.size() + kQuery.size() + devIndex.size());
  url.append(path).append(kQuery).append(devIndex);
  if (url.size() > kUrlMax) url.resize(kUrlMax);
  return url;
}

}  // namespace QNKAVROProtocol
