// The picture store as the rest of the gateway meets it: uploads come in through
// setPictureUploader, and the HTTP service serves the pictures under kPrefix, on the main port and
// on the picture port. Made by the host.
//
// Nobody logs in to fetch a picture: devices have no account here and clients are handed the URL.
// A name of 128 random bits is what gives access, and only who uploaded and the device learn it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "gateway/http/service_core.h"
#include "gateway/pictures/picture_store.h"

namespace qn {

class PictureResource {
 public:
  static constexpr std::string_view kPrefix = "/NovGatewayStorage/";
  static constexpr int kFull = 3610;  // the storage error of uploads that find no room

  // Whether the gateway itself answers on a port: pictures are taken only while it does so on the
  // one in their URLs.
  using PortCheck = std::function<bool(uint16_t port)>;

  // Installs itself. `folder` and exceptions as for PictureStore.
  PictureResource(const std::filesystem::path& folder, const PictureOptions& options,
                  PortCheck isServed);
  ~PictureResource();  // waits for running uploads
  PictureResource(const PictureResource&) = delete;
  PictureResource& operator=(const PictureResource&) = delete;

  // For the HTTP service, which must have served its last request before this goes away.
  OwnResource resource();
  void setOptions(const PictureOptions& options) { store_.setOptions(options); }
  PictureStore::Load load() const { return store_.load(); }

 private:
  bool upload(int& errorOut, std::string& urlOut, std::string_view picture);
  void serve(QNHttpService::ExchangeState& exchange) const;

  const PortCheck isServed_;
  PictureStore store_;
};

}  // namespace qn
