// See shared_feeds.h.
#include "gateway/cluster/shared_feeds.h"

#include <algorithm>
#include <atomic>
#include <boost/asio/steady_timer.hpp>
#include <deque>
#include <functional>
#include <list>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "gateway/log/log.h"
#include "gateway/sync/mutex.h"
#include "text/number.h"

namespace qn {
namespace {

using Clock = std::chrono::steady_clock;

// Renews one's own lease, takes a free one, or tells its holder that there is a reader. Numbers
// grow also when the server has lost them: they are its time, at least.
constexpr char kClaim[] =
    "local held = redis.call('GET', KEYS[1]) "
    "if held then "
    "  local holder = string.match(held, '^%S+') "
    "  if holder == ARGV[1] then redis.call('PEXPIRE', KEYS[1], ARGV[2]) "
    "  else redis.call('PUBLISH', ARGV[3] .. holder, ARGV[4]) end "
    "  return held end "
    "local time = redis.call('TIME') "
    "local number = math.max(time[1] * 1000 + math.floor(time[2] / 1000), "
    "  tonumber(redis.call('GET', KEYS[2]) or 0) + 1) "
    "number = string.format('%.0f', number) "
    "redis.call('SET', KEYS[2], number, 'PX', 3600000) "
    "held = ARGV[1] .. ' ' .. number "
    "redis.call('SET', KEYS[1], held, 'PX', ARGV[2]) "
    "return held";
// Only for the holder. The alarm, when there is one, and the id of the last one.
constexpr char kPublish[] =
    "if redis.call('GET', KEYS[1]) ~= ARGV[1] then return 0 end "
    "if ARGV[4] ~= '' then "
    "  redis.call('XADD', KEYS[2], 'MAXLEN', '~', ARGV[5], ARGV[3], 'alarm', ARGV[4]) "
    "  redis.call('PEXPIRE', KEYS[2], ARGV[6]) end "
    "redis.call('PUBLISH', ARGV[2], ARGV[3] .. ' ' .. ARGV[4]) "
    "return 1";
constexpr char kRelease[] =
    "if redis.call('GET', KEYS[1]) == ARGV[1] then "
    "redis.call('DEL', KEYS[1]) redis.call('PUBLISH', ARGV[2], 'free') end";

// Of an alarm: the holder's number and its count.
struct AlarmId {
  uint64_t holder = 0;
  uint64_t count = 0;

  auto operator<=>(const AlarmId&) const = default;
  std::string text() const { return std::to_string(holder) + '-' + std::to_string(count); }
};

std::optional<AlarmId> idOf(std::string_view text) {
  const std::size_t dash = std::min(text.find('-'), text.size());
  const auto holder = text::wholeNumber<uint64_t>(text.substr(0, dash));
  const auto count = text::wholeNumber<uint64_t>(text.substr(std::min(dash + 1, text.size())));
  if (!holder || !count) return std::nullopt;
  return AlarmId{*holder, *count};
}

// Two sources of the same alarms: each is let through once, whichever brings it first.
class Overlap {
 public:
  enum Source { Device, Others };

  bool isFirst(Source source, const std::string& alarm) {
    return isFirst(source, std::hash<std::string>()(alarm));
  }
  // Whether isFirst() would be false.
  bool wasBrought(Source source, const std::string& alarm) const {
    const auto found = seen_.find(std::hash<std::string>()(alarm));
    return found != seen_.end() && found->second.times[source] < found->second.delivered;
  }
  bool isFirst(Source source, std::size_t alarm) {
    Seen& seen = seen_[alarm];
    if (++seen.times[source] <= seen.delivered) return false;
    ++seen.delivered;
    return true;
  }

 private:
  struct Seen {
    unsigned times[2] = {0, 0};
    unsigned delivered = 0;
  };
  std::unordered_map<std::size_t, Seen> seen_;  // of a second or two
};

}  // namespace

// A device's feed as this gateway has it. States: alone (no server: a stream of its own to the
// device), holder (the same, and it publishes), reader, and leaving: a reader that has its own
// stream yet, until that of the holder surely flows.
class SharedFeeds::Feed final : public AlarmFeed, public std::enable_shared_from_this<Feed> {
 public:
  Feed(SharedFeeds& owner, const DeviceConfig& device, AlarmSink sink)
      : owner_(owner),
        redis_(owner.redis_),
        device_(device),
        sink_(std::move(sink)),
        lease_(owner.prefix_ + "feed:" + device.index),
        number_(owner.prefix_ + "number:" + device.index),
        stream_(owner.prefix_ + "alarms:" + device.index),
        timer_(redis_.context()),
        overlapTimer_(redis_.context()) {}

  // On the client's thread, as all that has no other word.
  void start() {
    if (!redis_.isConnected()) goAlone();
    claim();
  }
  // Any thread, the sink's too.
  void stop() override {
    stopped_ = true;
    redis_.post([self = shared_from_this()] { self->end(); });
  }
  // The server is gone.
  void goAlone() {
    {
      const MutexLock lock(mutex_);
      state_ = State::Alone;
      overlap_.reset();
      ahead_.clear();
      last_.reset();
      isFilling_ = false;
      deliverUnsure(false);
    }
    openOwn();
  }
  // No server and no thread of it any more.
  void close() {
    stopped_ = true;
    closeOwn();
  }
  void claim();
  void wanted();

 private:
  enum class State { Starting, Alone, Holder, Reader, Leaving };

  void end();
  void held(const std::string& holder, Clock::time_point until);
  void hold(uint64_t number, Clock::time_point until);
  void readFrom();
  void openOwn();
  void closeOwn();
  void deviceAlarm(const std::string& alarm, unsigned closedBefore);
  void bringFromOwn(const std::string& alarm) QN_REQUIRES(mutex_);
  void remember(const std::string& alarm, Clock::time_point now) QN_REQUIRES(mutex_);
  void published(std::string_view message);
  void deliverUnsure(bool published) QN_REQUIRES(mutex_);
  void overlapBegins() QN_REQUIRES(mutex_);
  void compareWithOwn() QN_REQUIRES(mutex_);
  void overlapEnds();
  void deliverFromOthers(const std::string& alarm) QN_REQUIRES(mutex_);
  void leave() QN_REQUIRES(mutex_);
  void publish(const std::string& alarm) QN_REQUIRES(mutex_);
  void wasPublished(const RedisAnswer* answer);
  void fill();
  void filled(const RedisAnswer& answer, const AlarmId& to);
  // So many alarms of its holder follow the last one, `id` included.
  uint64_t behind(const AlarmId& id) const QN_REQUIRES(mutex_) {
    return id.count - (last_ && last_->holder == id.holder ? last_->count : 0);
  }
  std::string holderText() const QN_REQUIRES(mutex_) {
    return owner_.self_ + ' ' + std::to_string(last_ ? last_->holder : 0);
  }

  SharedFeeds& owner_;
  RedisClient& redis_;
  const DeviceConfig device_;
  const AlarmSink sink_;
  const std::string lease_, number_, stream_;  // keys; the last one is the channel's name too
  std::atomic<bool> stopped_{false};
  std::atomic<unsigned> closed_{0};  // streams to the device so far

  // The client's thread's own:
  boost::asio::steady_timer timer_;
  boost::asio::steady_timer overlapTimer_;
  std::shared_ptr<AlarmFeed> own_;  // the stream to the device

  // Held while the sink runs, so that alarms come one by one in their order.
  Mutex mutex_;
  State state_ QN_GUARDED_BY(mutex_) = State::Starting;
  Clock::time_point leaseEnd_ QN_GUARDED_BY(mutex_);
  Clock::time_point wantedUntil_ QN_GUARDED_BY(mutex_);
  std::optional<AlarmId> last_ QN_GUARDED_BY(mutex_);  // published, or read
  std::vector<std::string> unsure_ QN_GUARDED_BY(mutex_);
  std::optional<Overlap> overlap_ QN_GUARDED_BY(mutex_);
  // While leaving: what others have brought and the own stream, which may be behind, has not.
  std::list<std::string> ahead_ QN_GUARDED_BY(mutex_);
  std::deque<std::pair<Clock::time_point, std::size_t>> recent_ QN_GUARDED_BY(mutex_);
  bool isFilling_ QN_GUARDED_BY(mutex_) = false;
  bool fillAgain_ QN_GUARDED_BY(mutex_) = false;
  AlarmId fillTo_ QN_GUARDED_BY(mutex_);  // published at least
};

// The lease counts from before it is asked for, so that it ends here before it ends there.
void SharedFeeds::Feed::claim() {
  if (stopped_) return;
  const auto until = Clock::now() + owner_.lease_;
  redis_.send({"EVAL", kClaim, "2", lease_, number_, owner_.self_,
               std::to_string(owner_.lease_.count()), owner_.prefix_ + "feeds:", device_.index},
              [self = shared_from_this(), until](const RedisAnswer* answer) {
                if (answer && !answer->texts.empty()) self->held(answer->texts[0], until);
              });
  timer_.expires_after(owner_.lease_ / 3);
  timer_.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
    if (!error) self->claim();
  });
}

void SharedFeeds::Feed::held(const std::string& holder, Clock::time_point until) {
  if (stopped_) return;
  const std::size_t blank = std::min(holder.find(' '), holder.size() - 1);
  if (holder.compare(0, blank, owner_.self_) != 0) return readFrom();
  const auto number = text::wholeNumber<uint64_t>(std::string_view(holder).substr(blank + 1));
  if (number) hold(*number, until);
}

// Alarms that came while it was unsure are nobody else's under the same number; under a new one
// somebody may have published them meanwhile, so they are for this gateway's clients alone.
void SharedFeeds::Feed::hold(uint64_t number, Clock::time_point until) {
  bool began = false;
  {
    const MutexLock lock(mutex_);
    const bool same = state_ == State::Holder && last_ && last_->holder == number;
    began = state_ != State::Holder;
    // Who read from the former holder says so again only at the next claim.
    if (began && state_ != State::Starting) wantedUntil_ = Clock::now() + owner_.lease_;
    leaseEnd_ = until;
    if (!same) last_ = AlarmId{number, 0};
    state_ = State::Holder;
    overlap_.reset();
    ahead_.clear();  // the own stream brings them
    deliverUnsure(same);
  }
  if (!began) return;
  redis_.ignore(stream_);
  openOwn();
}

// A holder that slept past its lease reads what the next one has published since. One whose lease
// was forgotten has its stream until that of the next one flows.
void SharedFeeds::Feed::readFrom() {
  bool wasHolder = false;
  bool slept = false;
  {
    const MutexLock lock(mutex_);
    if (state_ == State::Reader || state_ == State::Leaving) return;
    wasHolder = state_ == State::Holder;
    slept = wasHolder && Clock::now() >= leaseEnd_;
    if (wasHolder && !slept) last_.reset();
    state_ = state_ == State::Starting || slept ? State::Reader : State::Leaving;
    unsure_.clear();
    // By an answer that it slept on it may have taken itself for the holder for longer.
    if (slept) compareWithOwn();
  }
  redis_.listen(
      stream_, [self = shared_from_this()](std::string_view message) { self->published(message); });
  if (wasHolder) {
    logWarn("alarms of device {}: another gateway has taken its feed over", device_.index);
  }
  if (!slept) return;
  closeOwn();
  overlapEnds();
  fill();
}

void SharedFeeds::Feed::deliverUnsure(bool published) {
  for (const std::string& alarm : std::exchange(unsure_, {})) {
    remember(alarm, Clock::now());
    sink_(alarm);
    if (published) publish(alarm);
  }
}

void SharedFeeds::Feed::openOwn() {
  if (own_ || stopped_) return;
  own_ = owner_.devices_.open(
      device_, [self = shared_from_this(), closedBefore = closed_.load()](
                   const std::string& alarm) { self->deviceAlarm(alarm, closedBefore); });
}

void SharedFeeds::Feed::closeOwn() {
  if (!own_) return;
  ++closed_;
  std::exchange(own_, nullptr)->stop();
}

void SharedFeeds::Feed::end() {
  timer_.cancel();
  overlapTimer_.cancel();
  closeOwn();
  redis_.ignore(stream_);
  const auto listed = owner_.feeds_.find(device_.index);
  if (listed != owner_.feeds_.end() && listed->second.get() == this) owner_.feeds_.erase(listed);
  const MutexLock lock(mutex_);
  if (std::exchange(state_, State::Starting) != State::Holder) return;
  redis_.send({"EVAL", kRelease, "1", lease_, holderText(), stream_});
}

// On the device's reactor or a worker. What was under way when its stream was closed is dropped, so
// that nothing of a later one has gone before it.
void SharedFeeds::Feed::deviceAlarm(const std::string& alarm, unsigned closedBefore) {
  const auto now = Clock::now();
  const MutexLock lock(mutex_);
  if (stopped_ || closedBefore != closed_) return;
  switch (state_) {
    case State::Starting:
    case State::Reader:
      return;
    case State::Holder:
      if (now < leaseEnd_) {
        remember(alarm, now);
        sink_(alarm);
        publish(alarm);
      } else if (unsure_.size() < kUnsureAlarms) {  // somebody else may hold it by now
        unsure_.push_back(alarm);
        if (unsure_.size() == 1) redis_.post([self = shared_from_this()] { self->claim(); });
      } else {
        owner_.counts_.unpublished.add();
      }
      return;
    case State::Alone:
    case State::Leaving:
      remember(alarm, now);
      bringFromOwn(alarm);
  }
}

void SharedFeeds::Feed::bringFromOwn(const std::string& alarm) {
  if (!overlap_ || overlap_->isFirst(Overlap::Device, alarm)) sink_(alarm);
  while (!ahead_.empty() && overlap_->wasBrought(Overlap::Others, ahead_.front())) {
    overlap_->isFirst(Overlap::Others, ahead_.front());
    ahead_.pop_front();
  }
}

void SharedFeeds::Feed::remember(const std::string& alarm, Clock::time_point now) {
  recent_.emplace_back(now, std::hash<std::string>()(alarm));
  while (recent_.front().first < now - kInFlightTime || recent_.size() > kInFlightAlarms) {
    recent_.pop_front();
  }
}

// Somebody reads; who has missed something sees it by the id.
void SharedFeeds::Feed::wanted() {
  const MutexLock lock(mutex_);
  if (state_ != State::Holder) return;
  wantedUntil_ = Clock::now() + owner_.lease_;
  redis_.send(
      {"EVAL", kPublish, "2", lease_, stream_, holderText(), stream_, last_->text(), "", "0", "0"});
}

void SharedFeeds::Feed::publish(const std::string& alarm) {
  if (Clock::now() > wantedUntil_) return;
  const AlarmId id{last_->holder, last_->count + 1};
  const bool sent = redis_.send(
      {"EVAL", kPublish, "2", lease_, stream_, holderText(), stream_, id.text(), alarm,
       std::to_string(kStreamAlarms),
       std::to_string(std::chrono::milliseconds(kStreamTime).count())},
      [self = shared_from_this()](const RedisAnswer* answer) { self->wasPublished(answer); });
  if (!sent) return owner_.counts_.unpublished.add();
  last_ = id;
  owner_.counts_.published.add();
}

void SharedFeeds::Feed::wasPublished(const RedisAnswer* answer) {
  if (!answer || answer->texts.empty()) return owner_.counts_.unpublished.add();
  if (answer->texts[0] != "0") return;
  owner_.counts_.refused.add();
  claim();
}

// "ID ALARM", "ID " or "free".
void SharedFeeds::Feed::published(std::string_view message) {
  if (stopped_) return;
  if (message == "free") return claim();
  const std::size_t blank = std::min(message.find(' '), message.size());
  const auto id = idOf(message.substr(0, blank));
  if (!id) return;
  const std::string alarm(message.substr(std::min(blank + 1, message.size())));
  bool misses = false;
  {
    const MutexLock lock(mutex_);
    if (state_ != State::Reader && state_ != State::Leaving) return;
    if (state_ == State::Leaving && !overlap_) overlapBegins();
    if (!last_) last_ = AlarmId{id->holder, alarm.empty() ? id->count : id->count - 1};
    if (*id <= *last_) return;
    const bool isNext = id->count == (id->holder == last_->holder ? last_->count : 0) + 1;
    fillAgain_ = isFilling_;
    misses = !isFilling_ && (!isNext || alarm.empty());
    fillTo_ = std::max(fillTo_, alarm.empty() ? *id : AlarmId());
    if (!misses && !isFilling_) {
      last_ = id;
      owner_.counts_.received.add();
      deliverFromOthers(alarm);
    }
  }
  if (misses) fill();
}

// The holder's alarms flow: for a while both sources are read, then the own one ends.
void SharedFeeds::Feed::overlapBegins() {
  compareWithOwn();
  overlapTimer_.expires_after(kOverlapTime);
  overlapTimer_.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
    if (error) return;
    const MutexLock lock(self->mutex_);
    if (self->state_ == State::Leaving) self->leave();
  });
}

void SharedFeeds::Feed::leave() {
  state_ = State::Reader;
  for (const std::string& alarm : std::exchange(ahead_, {})) {
    if (overlap_->isFirst(Overlap::Others, alarm)) sink_(alarm);
  }
  closeOwn();
  overlapEnds();
}

// What others bring, with what the own stream has brought.
void SharedFeeds::Feed::compareWithOwn() {
  overlap_.emplace();
  for (const auto& [time, alarm] : recent_) {
    if (time > Clock::now() - kInFlightTime) overlap_->isFirst(Overlap::Device, alarm);
  }
  recent_.clear();
}

void SharedFeeds::Feed::overlapEnds() {
  overlapTimer_.expires_after(kInFlightTime);
  overlapTimer_.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
    const MutexLock lock(self->mutex_);
    if (!error) self->overlap_.reset();
  });
}

// As long as there is an own stream, an alarm that others bring first waits for it: older ones may
// be on their way there.
void SharedFeeds::Feed::deliverFromOthers(const std::string& alarm) {
  const bool waits =
      state_ == State::Leaving && overlap_ && !overlap_->wasBrought(Overlap::Others, alarm);
  if (waits && ahead_.size() < kAheadAlarms) {
    ahead_.push_back(alarm);
    return;
  }
  if (waits) leave();  // the own stream is of no use any more
  if (!overlap_ || overlap_->isFirst(Overlap::Others, alarm)) sink_(alarm);
}

void SharedFeeds::Feed::fill() {
  std::string from;
  AlarmId to;  // what is published later may come too late for this answer
  {
    const MutexLock lock(mutex_);
    if (!last_ || std::exchange(isFilling_, true)) return;
    fillAgain_ = false;
    from = '(' + last_->text();
    to = fillTo_;
  }
  const bool sent = redis_.send({"XRANGE", stream_, from, "+"},
                                [self = shared_from_this(), to](const RedisAnswer* answer) {
                                  if (answer) self->filled(*answer, to);
                                });
  if (sent) return;
  const MutexLock lock(mutex_);
  isFilling_ = false;
}

// An id, the field's name and the alarm of each.
void SharedFeeds::Feed::filled(const RedisAnswer& answer, const AlarmId& to) {
  bool again = false;
  {
    const MutexLock lock(mutex_);
    isFilling_ = false;
    if (stopped_ || (state_ != State::Reader && state_ != State::Leaving)) return;
    for (std::size_t i = 0; i + 2 < answer.texts.size(); i += 3) {
      const auto id = idOf(answer.texts[i]);
      if (!id || (last_ && *id <= *last_)) continue;
      owner_.counts_.missed.add(behind(*id) - 1);
      owner_.counts_.filled.add();
      last_ = id;
      deliverFromOthers(answer.texts[i + 2]);
    }
    if (last_ && *last_ < to) {  // what the stream has not is gone
      owner_.counts_.missed.add(behind(to));
      last_ = to;
    }
    again = std::exchange(fillAgain_, false);
  }
  if (again) fill();
}

SharedFeeds::SharedFeeds(RedisClient& redis, FeedOpener& devices, std::string prefix,
                         std::string self, std::chrono::milliseconds lease)
    : redis_(redis),
      devices_(devices),
      prefix_(std::move(prefix)),
      self_(std::move(self)),
      lease_(lease) {
  redis.listen(prefix_ + "feeds:" + self_, [this](std::string_view device) { wanted(device); });
  redis.onConnected([this] {
    for (const auto& [device, feed] : feeds_) feed->claim();
  });
  redis.onLost([this] {
    for (const auto& [device, feed] : feeds_) feed->goAlone();
  });
}

void SharedFeeds::stop() {
  for (const auto& [device, feed] : std::exchange(feeds_, {})) feed->close();
}

std::shared_ptr<AlarmFeed> SharedFeeds::open(const DeviceConfig& device, AlarmSink sink) {
  const auto feed = std::make_shared<Feed>(*this, device, std::move(sink));
  redis_.post([this, feed, index = device.index] {
    feeds_[index] = feed;
    feed->start();
  });
  return feed;
}

void SharedFeeds::wanted(std::string_view device) {
  const auto found = feeds_.find(device);
  if (found != feeds_.end()) found->second->wanted();
}

}  // namespace qn
