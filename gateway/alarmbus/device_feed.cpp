#include "gateway/alarmbus/device_feed.h"

#include <json/json.h>

#include <algorithm>
#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http/error.hpp>
#include <utility>

#include "gateway/alarmbus/alarm_text.h"
#include "gateway/log/log.h"

namespace qn {
namespace {

using namespace std::chrono_literals;
namespace asio = boost::asio;

// Quickly after the first break, then slower; with the connect limit below, a device that answers
// again is heard within two seconds.
constexpr auto kFirstDelay = 100ms;
constexpr auto kLongestDelay = 800ms;
constexpr auto kConnectLimit = 1000ms;
constexpr auto kHeadLimit = 5s;  // from the request to the answer's head
constexpr std::chrono::milliseconds kUnsupportedDelay =
    30s;  // the device answered, but with no stream
constexpr auto kStormGap = 1ms;
constexpr unsigned kQuickLogins = 2;  // answers to a challenge, without delay
constexpr std::size_t kPartLimit = 1024 * 1024;
constexpr std::size_t kHeadRestLimit = 64 * 1024;  // bytes kept for the parser

// Read into by every feed of a reactor, so that an idle feed needs no buffer. Its size is also what
// one device may use of a reactor before the others have their turn: some 50 alarms.
std::array<char, 16 * 1024>& scratch() {
  thread_local std::array<char, 16 * 1024> buffer;
  return buffer;
}

std::string target(const DeviceConfig& device) {
  return device.basePath +
         "/KAVRO/Event/notification/alertStream?format=json&devIndex=" + device.index;
}

}  // namespace

DeviceFeed::DeviceFeed(asio::io_context& reactor, DeviceConfig device, FeedTimes times,
                       AlarmSink sink)
    : reactor_(reactor),
      device_(std::move(device)),
      times_(times),
      quotedIndex_(Json::valueToQuotedString(device_.index.c_str())),
      sink_(std::move(sink)),
      socket_(reactor),
      resolver_(reactor),
      timer_(reactor),
      pause_(reactor),
      login_(device_.username, device_.password),
      random_(std::random_device{}()) {}

void DeviceFeed::start() {
  asio::post(reactor_, [self = shared_from_this()] { self->connect(); });
}

void DeviceFeed::stop() {
  asio::post(reactor_, [self = shared_from_this()] {
    Error ignored;
    self->stopped_ = true;
    self->timer_.cancel();
    self->pause_.cancel();
    self->resolver_.cancel();
    self->socket_.close(ignored);
  });
}

void DeviceFeed::connect() {
  if (stopped_) return;
  watch(kConnectLimit);
  Error notLiteral;
  const auto address = asio::ip::make_address(device_.host, notLiteral);
  if (!notLiteral) {
    return connectTo(Tcp::resolver::results_type::create(Tcp::endpoint(address, device_.port),
                                                         device_.host, ""));
  }
  resolver_.async_resolve(
      device_.host, std::to_string(device_.port), Tcp::resolver::numeric_service,
      [self = shared_from_this()](Error error, const Tcp::resolver::results_type& addresses) {
        if (error) return self->retry();
        self->connectTo(addresses);
      });
}

void DeviceFeed::connectTo(const Tcp::resolver::results_type& addresses) {
  if (stopped_) return;
  asio::async_connect(
      socket_, addresses,
      [self = shared_from_this()](Error error, const Tcp::endpoint&) { self->connected(error); });
}

void DeviceFeed::connected(Error error) {
  if (error || stopped_) return retry();
  Error ignored;
  socket_.non_blocking(true, ignored);
  socket_.set_option(asio::socket_base::keep_alive(true), ignored);
  watch(kHeadLimit);
  sendRequest();
}

std::string DeviceFeed::request() {
  const auto resource = target(device_);
  const auto authorization = login_.authorization("GET", resource);
  credentialsSent_ = !authorization.empty();
  auto text = "GET " + resource + " HTTP/1.1\r\nHost: " + device_.host + ":" +
              std::to_string(device_.port) + "\r\nAccept: multipart/mixed\r\n";
  if (credentialsSent_) text += "Authorization: " + authorization + "\r\n";
  return text + "\r\n";
}

void DeviceFeed::sendRequest() {
  request_ = request();
  rest_.clear();
  parts_.reset();
  response_.emplace([this] { return beginStream(); },
                    [this](std::string_view body) { return !parts_ || parts_->feed(body); });
  asio::async_write(socket_, asio::buffer(request_),
                    [self = shared_from_this()](Error error, std::size_t) {
                      if (error) return self->retry();
                      self->request_ = {};
                      self->waitForBytes();
                    });
}

void DeviceFeed::waitForBytes() {
  socket_.async_wait(Tcp::socket::wait_read, [self = shared_from_this()](Error error) {
    if (error) return self->retry();
    self->readBytes();
  });
}

// One read for each turn, so that a device that never pauses leaves the reactor to others.
void DeviceFeed::readBytes() {
  if (stopped_) return;
  Error error;
  auto& buffer = scratch();
  const auto size = socket_.read_some(asio::buffer(buffer), error);
  if (error == asio::error::would_block) return waitForBytes();  // the storm is over
  if (error || !parse(std::string_view(buffer.data(), size))) return retry();
  const auto sinceLast = Clock::now() - std::exchange(lastBytes_, Clock::now());
  if (size == buffer.size()) return waitForBytes();  // more is there already
  if (sinceLast < 2 * kStormGap) return gather();
  waitForBytes();
}

// A device in a storm is read once in a while: many alarms at a time cost a fraction of what each
// costs alone, from the wake-up here to the clients' sockets.
void DeviceFeed::gather() {
  pause_.expires_after(kStormGap);
  pause_.async_wait([self = shared_from_this()](Error error) {
    if (!error) self->readBytes();
  });
}

bool DeviceFeed::parse(std::string_view bytes) {
  const bool kept = !rest_.empty();
  if (kept) bytes = rest_.append(bytes);
  Error error;
  while (!bytes.empty() && !response_->is_done()) {
    const auto used = response_->put(asio::const_buffer(bytes.data(), bytes.size()), error);
    bytes.remove_prefix(used);
    if (error == boost::beast::http::error::need_more) break;
    if (error) return false;
  }
  if (response_->is_done() || bytes.size() > kHeadRestLimit) return false;
  rest_ = std::string(bytes);
  return true;
}

// The head is there: a stream, or a refusal that decides when to try again.
bool DeviceFeed::beginStream() {
  const auto boundary = response_->boundary();
  if (response_->status() != 200 || boundary.empty()) return takeRefusal();
  challenges_ = 0;
  parts_.emplace(boundary, kPartLimit, [this](std::string_view contentType, std::string_view body) {
    takePart(contentType, body);
  });
  watch(times_.silence);
  logInfo("alert stream of device {} open", device_.index);
  return true;
}

bool DeviceFeed::takeRefusal() {
  const bool challenged =
      response_->status() == 401 && login_.takeChallenge(response_->challenge());
  if (challenged && (!credentialsSent_ || login_.stale()) && ++challenges_ <= kQuickLogins) {
    refusedDelay_ = 0ms;
    return false;
  }
  logWarn("alert stream of device {} refused with status {}", device_.index, response_->status());
  if (response_->status() >= 500) return false;  // a device that is starting, say
  refusedDelay_ = response_->status() == 401 ? times_.refused : kUnsupportedDelay;
  return false;
}

void DeviceFeed::takePart(std::string_view contentType, std::string_view body) {
  failures_ = 0;
  if (contentType.starts_with("image/") || body.empty()) return;
  thread_local std::string alarm;  // reused by all feeds of the reactor
  if (setDeviceIndex(body, quotedIndex_, alarm)) sink_(alarm);
  if (alarm.capacity() > kHeadRestLimit) alarm = {};
}

// Breaks the connection when the step under way takes longer, or the stream is silent as long.
void DeviceFeed::watch(std::chrono::milliseconds limit) {
  lastBytes_ = Clock::now();
  armWatch(limit);
}

void DeviceFeed::armWatch(std::chrono::milliseconds limit) {
  timer_.expires_at(lastBytes_ + limit);
  timer_.async_wait([self = shared_from_this(), limit](Error error) {
    if (error || self->stopped_) return;
    if (self->timer_.expiry() > Clock::now()) return;  // set anew while this run was on its way
    if (Clock::now() - self->lastBytes_ < limit) return self->armWatch(limit);
    Error ignored;
    self->resolver_.cancel();
    self->socket_.close(ignored);  // what is under way ends with an error and retries
  });
}

void DeviceFeed::retry() {
  if (stopped_) return;
  Error ignored;
  socket_.close(ignored);
  timer_.expires_after(nextDelay());
  timer_.async_wait([self = shared_from_this()](Error error) {
    if (!error) self->connect();
  });
}

// Jittered, so that devices behind one broken link do not all come back at once.
std::chrono::milliseconds DeviceFeed::nextDelay() {
  if (refusedDelay_) return *std::exchange(refusedDelay_, std::nullopt);
  const auto delay = std::min(kLongestDelay, kFirstDelay * (1 << std::min(failures_++, 3U)));
  const auto jitter = static_cast<int>(delay.count() / 4);
  return delay - std::chrono::milliseconds(std::uniform_int_distribution(0, jitter)(random_));
}

}  // namespace qn
