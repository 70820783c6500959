// See service_core.h.
#include "gateway/http/service_core.h"

#include <algorithm>
#include <climits>
#include <exception>
#include <string>
#include <system_error>
#include <utility>

#include "gateway/http/multipart.h"
#include "platform/wlog.h"

namespace qn {
namespace {

using boost::asio::ip::address;

struct SpecialPath {
  std::string_view path;
  bool takesPicture;
};
// Resources whose requests may block: they run on the worker pool.
constexpr SpecialPath kSpecialPaths[] = {
    {"/KAVRO/System/Audio/channels", false},
    {"/KAVRO/Intelligent/FDLib/FaceDataRecord", true},
    {"/KAVRO/Intelligent/FDLib/FDSetUp", true},
};

constexpr std::size_t kRefusalsAtOnce = 256;

// Runs what answers an exchange; whatever it throws, there is an answer.
template <class Answering>
void answering(const ExchangePtr& exchange, Answering answer) {
  try {
    return answer();
  } catch (const std::exception& e) {
    wlog_format(WLOG_ERROR, "http", "%s: %s", exchange->url().c_str(), e.what());
  } catch (...) {
    wlog_format(WLOG_ERROR, "http", "%s: not a std::exception", exchange->url().c_str());
  }
  exchange->finish(OwnAnswer::InternalError);
}

const SpecialPath* findSpecialPath(std::string_view url) {
  const std::string_view path = url.substr(0, url.find('?'));
  for (const SpecialPath& special : kSpecialPaths) {
    if (path == special.path) return &special;
  }
  return nullptr;
}

}  // namespace

address plainAddress(const address& peer) {
  if (!peer.is_v6() || !peer.to_v6().is_v4_mapped()) return peer;
  return boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, peer.to_v6());
}

bool Admission::enter(const address& peer) {
  const std::lock_guard lock(mutex_);
  if (open_ >= connections_) return false;
  std::size_t& ofAddress = byAddress_[peer];
  if (ofAddress >= perAddress_) {
    if (ofAddress == 0) byAddress_.erase(peer);
    return false;
  }
  ++ofAddress;
  ++open_;
  return true;
}

void Admission::leave(const address& peer) {
  const std::lock_guard lock(mutex_);
  const auto found = byAddress_.find(peer);
  if (--found->second == 0) byAddress_.erase(found);
  --open_;
}

ServiceCore::ServiceCore(Reactors& reactorsIn, WorkerPool& pool, const HttpOptions& optionsIn,
                         const HttpBounds& boundsIn, ProcessFunction processIn,
                         std::vector<OwnResource> resources)
    : reactors(reactorsIn),
      options(optionsIn),
      bounds(boundsIn),
      admission(optionsIn.connections, optionsIn.connectionsPerAddress),
      refusals(kRefusalsAtOnce, kRefusalsAtOnce / 4),
      open(reactorsIn.size()),
      pool_(pool),
      process_(processIn),
      resources_(std::move(resources)) {
  for (const std::string& proxy : options.trustedProxies) {
    boost::system::error_code ec;
    const address parsed = boost::asio::ip::make_address(proxy, ec);
    if (ec) throw std::system_error(ec, "trusted proxy \"" + proxy + "\"");
    trusted_.push_back(plainAddress(parsed));
  }
}

bool ServiceCore::trusts(const address& peer) const {
  return std::find(trusted_.begin(), trusted_.end(), peer) != trusted_.end();
}

bool ServiceCore::holdBody(std::size_t before, std::size_t after) {
  const std::size_t change = after - before;  // wraps when it shrinks, and so does the sum
  return bodyMemory_.fetch_add(change) + change <= bounds.bodyMemory;
}

bool ServiceCore::enterRequest() {
  if (requests_.fetch_add(1) < options.requests) return true;
  requests_.fetch_sub(1);
  return false;
}

const OwnResource* ServiceCore::findResource(std::string_view url) const {
  for (const OwnResource& resource : resources_) {
    if (url.starts_with(resource.prefix)) return &resource;
  }
  return nullptr;
}

template <class Job>
void ServiceCore::queue(const ExchangePtr& exchange, Job job) {
  if (!pool_.post(std::move(job))) exchange->finish(OwnAnswer::Overloaded);
}

void ServiceCore::handOver(const ExchangePtr& exchange, Access access, std::string_view body) {
  if (const OwnResource* resource = findResource(exchange->url())) {
    queue(exchange, [core = shared_from_this(), exchange, resource] {
      answering(exchange, [&] { resource->serve(*exchange); });
    });
  } else if (access != Access::Everything) {
    exchange->finish(OwnAnswer::NotFound);
  } else if (findSpecialPath(exchange->url()) == nullptr) {
    process(exchange, body);
  } else {
    queue(exchange, [core = shared_from_this(), exchange, owned = std::string(body)] {
      core->process(exchange, owned);
    });
  }
}

void ServiceCore::process(const ExchangePtr& exchange, std::string_view body) const {
  answering(exchange, [&] { processOrThrow(exchange, body); });
}

void ServiceCore::processOrThrow(const ExchangePtr& exchange, std::string_view body) const {
  QNHttpService::stHttpRes request;
  request.exchange = std::make_shared<QNHttpService::CHttpExchange>(exchange);
  std::optional<FaceBody> face;
  const SpecialPath* special = findSpecialPath(exchange->url());
  if (special != nullptr && special->takesPicture) {
    const std::string contentType = exchange->header("Content-Type");
    if (isMultipart(contentType)) {
      face = readFaceBody(contentType, body);
      if (!face) {
        exchange->finish(OwnAnswer::Malformed);
        return;
      }
      body = face->bytes;
      request.hasMimePart = face->hasMimeType;
      request.mimeType = face->mimeType;
    }
  }
  if (!body.empty()) {
    request.body = body.data();
    request.bodyLength = static_cast<int>(std::min<std::size_t>(body.size(), INT_MAX));
  }
  int bodyIsXml = 1;
  int asyncReply = 0;
  std::string answer;
  const int status = process_(bodyIsXml, answer, asyncReply, request);
  if (asyncReply == 0) {
    exchange->finish(status, bodyIsXml != 0 ? "application/xml" : "application/json", answer);
  }
}

}  // namespace qn
