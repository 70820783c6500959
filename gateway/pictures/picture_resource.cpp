// See picture_resource.h.
#include "gateway/pictures/picture_resource.h"

#include <optional>
#include <utility>

#include "gateway/auth/login_request.h"
#include "gateway/config/picture_uploader.h"
#include "gateway/pictures/picture_file.h"
#include "platform/config_mgr.h"
#include "platform/http_service.h"

namespace qn {
namespace {

// Where devices look for it. Throws nothing but std::bad_alloc; empty without an address.
std::string urlOf(const CNetworkCfg& network, const std::string& name) {
  _NIC_INFO_V4 address{};
  if (network.getIPv4ByProtocol(address, DEVICE_PROTOCOL_KAVRO) != 0) return {};
  return std::string("http://") + address.address + ':' +
         std::to_string(network.getPssUploadPort()) + std::string(PictureResource::kPrefix) + name;
}

}  // namespace

PictureResource::PictureResource(const std::filesystem::path& folder, const PictureOptions& options,
                                 PortCheck isServed)
    : isServed_(std::move(isServed)), store_(folder, options) {
  setPictureUploader(
      [this](int& errorOut, std::string& urlOut, const std::string& picture,
             const std::string& /*clientUrl*/) { return upload(errorOut, urlOut, picture); });
}

PictureResource::~PictureResource() { setPictureUploader({}); }

OwnResource PictureResource::resource() {
  return {std::string(kPrefix),
          [this](QNHttpService::ExchangeState& exchange) { serve(exchange); }};
}

bool PictureResource::upload(int& errorOut, std::string& urlOut, std::string_view picture) {
  errorOut = 0;
  const auto network = QN_ConfigMgr_GetNetworkCfg();
  if (!network || !isServed_(static_cast<uint16_t>(network->getPssUploadPort()))) return false;
  std::string name;
  const LoginRequest* const request = LoginRequest::current();
  const PictureStore::Result result =
      store_.add(picture, request ? request->user() : std::string(), name);
  errorOut = result == PictureStore::Result::Full ? kFull : 0;
  if (result != PictureStore::Result::Stored) return false;
  urlOut = urlOf(*network, name);
  return !urlOut.empty();
}

void PictureResource::serve(QNHttpService::ExchangeState& exchange) const {
  const bool reads =
      exchange.method() == QNHttpService::HTTP_GET || exchange.method() == QNHttpService::HTTP_HEAD;
  const std::string_view url = exchange.url();
  const std::string_view name =
      url.substr(kPrefix.size(), url.find('?') - kPrefix.size());  // kPrefix has no '?'
  const auto picture = reads ? store_.find(name) : std::nullopt;
  if (!picture) {
    exchange.finish(OwnAnswer::NotFound);
    return;
  }
  exchange.setHeader("Cache-Control", "private");
  exchange.setHeader("X-Content-Type-Options", "nosniff");
  exchange.finish(200, pictureType(name), *picture);
}

}  // namespace qn
