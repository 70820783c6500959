#include "gateway/alarmbus/device_feed.h"

#include <json/json.h>

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/http/error.hpp>
#include <utility>

#include "gateway/alarmbus/alarm_text.h"
#include "gateway/log/log.h"

namespace qn {
namespace {

using namespace std::chrono_literals;
namespace asio = boost::asio;

// Quickly after the first break, then slower, and never so slowly that a device that answers again
// is not heard within two seconds.
constexpr auto kFirstDelay = 250ms;
constexpr auto kLongestDelay = 2000ms;
constexpr auto kConnectLimit = 1000ms;
constexpr auto kHeadLimit = 5s;      // from the request to the answer's head
constexpr auto kLoginDelay = 60s;    // it asks for a login that the gateway does not have
constexpr auto kTrialDelay = 100ms;  // a request of the bus is trying the credentials
constexpr auto kStormGap = 1ms;
constexpr std::size_t kPartLimit = 256 * 1024;
constexpr std::size_t kLargeAlarm = 16 * 1024;  // from here on reading it takes long
constexpr std::ptrdiff_t kAlarmValues = 64 * 1024;
constexpr std::size_t kKeptAlarm = 64 * 1024;  // memory for an alarm that a reactor keeps
// What one device may use of a reactor before the others have their turn: some 50 alarms.
constexpr std::size_t kReadSize = 16 * 1024;

// Each value but the first of a list or an object stands behind a comma.
bool hasTooManyValues(std::string_view json) {
  const auto begins = [](char c) { return c == ',' || c == '{' || c == '['; };
  return std::ssize(json) > kAlarmValues &&
         std::count_if(json.begin(), json.end(), begins) > kAlarmValues;
}

}  // namespace

DeviceFeed::DeviceFeed(asio::io_context& reactor, WorkerPool& workers,
                       std::shared_ptr<Device> device, FeedTimes times, AlarmSink sink)
    : reactor_(reactor),
      workers_(workers),
      device_(std::move(device)),
      times_(times),
      quotedIndex_(Json::valueToQuotedString(device_->config.index.c_str())),
      sink_(std::move(sink)),
      stream_(reactor),
      timer_(reactor),
      random_(std::random_device{}()) {}

DeviceFeed::Opening::Opening(DeviceFeed& feed)
    : target(feed.device_->config.basePath +
             "/KAVRO/Event/notification/alertStream?format=json&devIndex=" +
             feed.device_->config.index),
      dialer(*feed.device_, feed.stream_) {}

void DeviceFeed::start() {
  device_->counts.feedWanted = true;
  asio::post(reactor_, [self = shared_from_this()] { self->connect(); });
}

void DeviceFeed::stop() {
  device_->counts.feedWanted = false;
  asio::post(reactor_, [self = shared_from_this()] {
    self->stopped_ = true;
    self->device_->counts.alarmsFlow = false;
    self->timer_.cancel();
    if (self->pause_) self->pause_->cancel();
    self->closeStream();
    if (self->opening_) self->opening_->login.reset();  // others may try the credentials
    self->opening_.reset();
  });
}

void DeviceFeed::connect() {
  if (stopped_) return;
  if (!opening_) opening_ = std::make_shared<Opening>(*this);
  Opening& opening = *opening_;
  switch (device_->login.prepare(*opening.login, "GET", opening.target, opening.authorization)) {
    case DeviceLogin::Verdict::Wait:
      return connectAfter(kTrialDelay);
    case DeviceLogin::Verdict::Refused:
      return connectAfter(device_->login.refusedFor().value_or(0s));
    case DeviceLogin::Verdict::Send:
      break;
  }
  watch(kConnectLimit);
  // A name that is found late finds the dialer still there.
  opening.dialer.start([self = shared_from_this(), keeper = opening_](const Error& error) {
    if (error || self->stopped_) return self->retry(error.message());
    self->connected();
  });
}

void DeviceFeed::connected() {
  Error ignored;
  stream_.socket().set_option(asio::socket_base::keep_alive(true), ignored);
  watch(kHeadLimit);
  parts_.reset();
  reply_.emplace(std::nullopt);
  writeRequestHead(
      opening_->head, *device_,
      {"GET", opening_->target, "Accept: multipart/mixed\r\n", opening_->authorization});
  sendHead(0);
}

void DeviceFeed::sendHead(std::size_t sent) {
  stream_.asyncWriteSome(
      asio::buffer(opening_->head) + sent,
      [self = shared_from_this(), opening = opening_, sent](Error error, std::size_t count) {
        if (self->stopped_) return;
        if (!error && sent + count < opening->head.size()) {
          return self->sendHead(sent + count);
        }
        if (!error) self->stream_.endWriting(error);
        if (error) return self->retry(error.message());
        self->waitForBytes();
      });
}

void DeviceFeed::closeStream() {
  if (opening_) return opening_->dialer.cancel();
  stream_.close();
}

void DeviceFeed::waitForBytes() {
  stream_.asyncWaitUnread([self = shared_from_this()](Error error) {
    if (error) return self->retry(error.message());
    self->readBytes();
  });
}

// One read for each turn, so that a device that never pauses leaves the reactor to others.
void DeviceFeed::readBytes() {
  if (stopped_) return;
  Error error;
  const auto space = buffer_.space(kReadSize);
  const auto size = stream_.readSome(space, error);
  buffer_.commit(size);
  const bool stormOver = error == asio::error::would_block;
  std::string fault;
  if (!stormOver && error) {
    fault = error.message();
  } else if (!stormOver && !parse()) {
    fault = "what came cannot be read";
  }
  if (!forWorker_.empty()) return deliverOnWorker(fault);
  if (!fault.empty()) return retry(fault);
  if (buffer_.empty()) buffer_.clear(0);  // an idle feed needs no memory
  if (stormOver) return waitForBytes();
  const auto sinceLast = Clock::now() - std::exchange(lastBytes_, Clock::now());
  if (size == space.size()) return waitForBytes();  // more is there already
  if (sinceLast < 2 * kStormGap) return gather();
  waitForBytes();
}

// A device in a storm is read once in a while: many alarms at a time cost a fraction of what each
// costs alone, from the wake-up here to the clients' sockets.
void DeviceFeed::gather() {
  if (!pause_) pause_ = std::make_unique<DeviceStream::Timer>(reactor_);
  pause_->expires_after(kStormGap);
  pause_->async_wait([self = shared_from_this()](Error error) {
    if (!error) self->readBytes();
  });
}

bool DeviceFeed::parse() {
  while (!buffer_.empty() && !reply_->is_done()) {
    Error error;
    buffer_.consume(reply_->put(asio::buffer(buffer_.unread()), error));
    if (reply_->is_header_done() && !parts_ && !beginStream()) return false;
    if (parts_ && (!parts_->feed(reply_->body()) || !fault_.empty())) return false;
    reply_->dropBody();
    if (error == boost::beast::http::error::need_more) return true;
    if (error) return false;
  }
  return !reply_->is_done();
}

// The head is there: a stream, or a refusal that decides when to try again.
bool DeviceFeed::beginStream() {
  constexpr int kUnauthorized = 401;
  const int status = reply_->status();
  if (status == kUnauthorized) {
    takeLoginRefusal();
    return false;
  }
  device_->login.accepted(*opening_->login);
  opening_.reset();
  if (status != 200 || reply_->boundary().empty()) {
    fault_ = "status " + std::to_string(status) + ", and no stream";
    return false;
  }
  parts_.emplace(
      reply_->boundary(), kPartLimit,
      [this](std::string_view contentType, std::string_view body) { takePart(contentType, body); });
  device_->counts.alarmsFlow = true;
  watch(times_.silence);
  if (std::exchange(broken_, false)) {
    logWarn("alert stream of device {} open again", device_->config.index);
  } else {
    logInfo("alert stream of device {} open", device_->config.index);
  }
  return true;
}

void DeviceFeed::takeLoginRefusal() {
  loginDelay_ = 0ms;
  if (device_->login.refused(*opening_->login, reply_->challenge())) return;
  opening_->login.emplace();
  fault_ = "the device refuses the login";
  loginDelay_ = device_->login.refusedFor().value_or(kLoginDelay);
}

void DeviceFeed::takePart(std::string_view contentType, std::string_view body) {
  failures_ = 0;
  if (contentType.starts_with("image/") || body.empty() || !fault_.empty()) return;
  if (hasTooManyValues(body)) {
    fault_ = "an alarm of too many values";
  } else if (body.size() >= kLargeAlarm || !forWorker_.empty()) {
    forWorker_.emplace_back(body);
  } else {
    deliver(body);
  }
}

void DeviceFeed::deliver(std::string_view body) const {
  thread_local std::string alarm;  // reused by all feeds of the thread
  device_->counts.alarms.add();
  if (setDeviceIndex(body, quotedIndex_, alarm)) sink_(alarm);
  if (alarm.capacity() > kKeptAlarm) alarm = {};
}

// Nothing is read meanwhile, so that alarms keep their order and do not pile up.
void DeviceFeed::deliverOnWorker(const std::string& fault) {
  auto alarms = std::make_shared<std::vector<std::string>>(std::exchange(forWorker_, {}));
  const auto job = [self = shared_from_this(), alarms, fault] {
    for (const std::string& alarm : *alarms) self->deliver(alarm);
    asio::post(self->reactor_, [self, fault] {
      if (!fault.empty()) return self->retry(fault);
      self->lastBytes_ = Clock::now();
      self->waitForBytes();
    });
  };
  if (!workers_.post(job)) job();
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
    self->fault_ = "nothing came in time";
    self->closeStream();  // what is under way ends with an error and retries
  });
}

void DeviceFeed::retry(std::string_view error) {
  if (stopped_) return;
  device_->counts.alarmsFlow = false;
  closeStream();
  buffer_.clear(0);
  const std::string fault = std::exchange(fault_, {});
  if (loginDelay_ != 0ms && !std::exchange(broken_, true)) {
    logWarn("alert stream of device {} broken: {}", device_->config.index,
            fault.empty() ? error : fault);
  }
  connectAfter(nextDelay());
}

void DeviceFeed::connectAfter(Clock::duration delay) {
  timer_.expires_after(delay);
  timer_.async_wait([self = shared_from_this()](Error error) {
    if (!error) self->connect();
  });
}

// Jittered, so that devices behind one broken link do not all come back at once.
DeviceFeed::Clock::duration DeviceFeed::nextDelay() {
  if (loginDelay_) return *std::exchange(loginDelay_, std::nullopt);
  const auto delay = std::min(kLongestDelay, kFirstDelay * (1 << std::min(failures_++, 3U)));
  const auto jitter = static_cast<int>(delay.count() / 4);
  return delay - std::chrono::milliseconds(std::uniform_int_distribution(0, jitter)(random_));
}

// The caller's, unless it is a thread of others.
std::size_t DeviceFeeds::reactorForNext() {
  const auto here = static_cast<std::size_t>(Reactors::current());  // kNone: beyond all
  const bool isOurs =
      here < reactors_.size() && reactors_.context(here).get_executor().running_in_this_thread();
  return isOurs ? here : nextReactor_++ % reactors_.size();
}

std::shared_ptr<AlarmFeed> DeviceFeeds::open(const DeviceConfig& device, AlarmSink sink) {
  auto feed = std::make_shared<DeviceFeed>(reactors_.context(reactorForNext()), workers_,
                                           directory_.find(device), times_, std::move(sink));
  feed->start();
  return feed;
}

}  // namespace qn
