// See shared_feeds.h.
#include "gateway/cluster/shared_feeds.h"

#include <algorithm>
#include <atomic>
#include <boost/asio/steady_timer.hpp>
#include <deque>
#include <list>
#include <optional>
#include <utility>
#include <vector>

#include "gateway/cluster/overlap.h"
#include "gateway/log/log.h"
#include "gateway/sync/mutex.h"
#include "text/number.h"

namespace qn {
namespace {

using Clock = std::chrono::steady_clock;

// Renews one's own lease, takes a free one, or tells its holder that there is a reader. Numbers
// grow also when the server has lost them: they are its time, at least. A third word says that
// somebody has had the feed not long ago.
constexpr char kClaim[] =
    "local held = redis.call('GET', KEYS[1]) "
    "if held then "
    "  local holder = string.match(held, '^%S+') "
    "  if holder == ARGV[1] then redis.call('PEXPIRE', KEYS[1], ARGV[2]) "
    "    redis.call('PEXPIRE', KEYS[2], 3600000) "
    "  else redis.call('PUBLISH', ARGV[3] .. holder, ARGV[4]) end "
    "  return held end "
    "local time = redis.call('TIME') "
    "local former = redis.call('GET', KEYS[2]) "
    "local number = math.max(time[1] * 1000 + math.floor(time[2] / 1000), "
    "  tonumber(former or 0) + 1) "
    "number = string.format('%.0f', number) "
    "redis.call('SET', KEYS[2], number, 'PX', 3600000) "
    "held = ARGV[1] .. ' ' .. number "
    "redis.call('SET', KEYS[1], held, 'PX', ARGV[2]) "
    "return held .. (former and ' again' or '')";
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

// What the server says of one that is this gateway's.
struct Lease {
  uint64_t number = 0;
  Clock::time_point until;
  bool hadHolder = false;  // before
};

std::optional<AlarmId> idOf(std::string_view text) {
  const std::size_t dash = std::min(text.find('-'), text.size());
  const auto holder = text::wholeNumber<uint64_t>(text.substr(0, dash));
  const auto count = text::wholeNumber<uint64_t>(text.substr(std::min(dash + 1, text.size())));
  if (!holder || !count) return std::nullopt;
  return AlarmId{*holder, *count};
}

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
      behindGap_ = {};
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
  void held(std::string_view answer, Clock::time_point until);
  void takeOver(const Lease& lease);
  void takeOverBehind(const RedisAnswer* answer, const Lease& lease);
  void hold(const Lease& lease);
  void letGo(uint64_t number);
  void readFrom();
  void openOwn();
  void closeOwn();
  void deviceAlarm(const std::string& alarm, unsigned closedBefore);
  bool bringFromOwn(const std::string& alarm) QN_REQUIRES(mutex_);
  void remember(const std::string& alarm, Clock::time_point now) QN_REQUIRES(mutex_);
  void published(std::string_view message);
  void deliverUnsure(bool published) QN_REQUIRES(mutex_);
  void overlapBegins() QN_REQUIRES(mutex_);
  void compareWithOwn() QN_REQUIRES(mutex_);
  void overlapEnds();
  void deliverFromOthers(const std::string& alarm) QN_REQUIRES(mutex_);
  void leave() QN_REQUIRES(mutex_);
  void bringAhead() QN_REQUIRES(mutex_);
  void publish(const std::string& alarm) QN_REQUIRES(mutex_);
  void wasPublished(const RedisAnswer* answer);
  void fill();
  bool askForMissing(RedisClient::Done done) QN_REQUIRES(mutex_);
  void filled(const RedisAnswer* answer, const AlarmId& to);
  bool takeStored(const RedisAnswer& answer) QN_REQUIRES(mutex_);
  void skipLost(const AlarmId& to) QN_REQUIRES(mutex_);
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
  // What others brought while this gateway was leaving, and its own stream, which may be behind,
  // has not. Empty without an overlap.
  std::list<std::string> ahead_ QN_GUARDED_BY(mutex_);
  std::deque<std::pair<Clock::time_point, std::size_t>> recent_ QN_GUARDED_BY(mutex_);
  bool isFilling_ QN_GUARDED_BY(mutex_) = false;
  bool fillAgain_ QN_GUARDED_BY(mutex_) = false;
  AlarmId fillTo_ QN_GUARDED_BY(mutex_);                             // published at least
  std::pair<AlarmId, std::string> behindGap_ QN_GUARDED_BY(mutex_);  // came, and waits
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

void SharedFeeds::Feed::held(std::string_view answer, Clock::time_point until) {
  const std::size_t blank = std::min(answer.find(' '), answer.size());
  if (answer.substr(0, blank) != owner_.self_) {
    if (!stopped_) readFrom();
    return;
  }
  const std::string_view rest = answer.substr(std::min(blank + 1, answer.size()));
  const std::size_t end = std::min(rest.find(' '), rest.size());
  const auto number = text::wholeNumber<uint64_t>(rest.substr(0, end));
  if (number) takeOver({*number, until, end < rest.size()});
}

// One that read takes first what the former holder has published and is not here yet.
void SharedFeeds::Feed::takeOver(const Lease& lease) {
  bool asked = false;
  {
    const MutexLock lock(mutex_);
    asked = !stopped_ && state_ == State::Reader && last_ &&
            askForMissing([self = shared_from_this(), lease](const RedisAnswer* answer) {
              self->takeOverBehind(answer, lease);
            });
  }
  if (!asked) hold(lease);
}

void SharedFeeds::Feed::takeOverBehind(const RedisAnswer* answer, const Lease& lease) {
  bool more = false;
  {
    const MutexLock lock(mutex_);
    if (answer && !stopped_ && state_ == State::Reader) {
      more = takeStored(*answer);
      if (!more) skipLost(fillTo_);
    }
  }
  more ? takeOver(lease) : hold(lease);
}

// Alarms that came while it was unsure are nobody else's under the same number; under a new one
// somebody may have published them meanwhile, so they are for this gateway's clients alone.
void SharedFeeds::Feed::hold(const Lease& lease) {
  if (stopped_) return letGo(lease.number);
  bool began = false;
  {
    const MutexLock lock(mutex_);
    const bool same = state_ == State::Holder && last_ && last_->holder == lease.number;
    began = state_ != State::Holder;
    // Who read from the former holder says so again only at the next claim.
    if (!same && (state_ != State::Starting || lease.hadHolder)) {
      wantedUntil_ = Clock::now() + owner_.lease_;
    }
    leaseEnd_ = lease.until;
    if (!same) last_ = AlarmId{lease.number, 0};
    // The own stream of one that was leaving may bring yet what the former holder has published.
    if (state_ == State::Reader) overlap_.reset();
    state_ = State::Holder;
    deliverUnsure(same);
  }
  if (!began) return;
  redis_.ignore(stream_);
  openOwn();
}

// Nobody waits for the end of a lease that is not used, unless a later feed of this gateway uses
// it.
void SharedFeeds::Feed::letGo(uint64_t number) {
  const auto listed = owner_.feeds_.find(device_.index);
  if (listed != owner_.feeds_.end() && listed->second.get() != this) return;
  redis_.send(
      {"EVAL", kRelease, "1", lease_, owner_.self_ + ' ' + std::to_string(number), stream_});
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
    if (slept) {
      bringAhead();
      compareWithOwn();
    }
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
        if (bringFromOwn(alarm)) publish(alarm);
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

// Whether nobody else has brought it.
bool SharedFeeds::Feed::bringFromOwn(const std::string& alarm) {
  const bool isFirst = !overlap_ || overlap_->isFirst(Overlap::Device, alarm);
  if (isFirst) sink_(alarm);
  bool waited = false;
  while (!ahead_.empty() && overlap_->wasBrought(Overlap::Others, ahead_.front())) {
    waited = true;
    overlap_->isFirst(Overlap::Others, ahead_.front());
    ahead_.pop_front();
  }
  return isFirst && !waited;
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
    // Behind a former holder's last one there may be more of its own.
    const bool isNext = id->holder == last_->holder && id->count == last_->count + 1;
    fillAgain_ = isFilling_;
    misses = !isFilling_ && (!isNext || alarm.empty());
    fillTo_ = std::max(fillTo_, alarm.empty() ? *id : AlarmId());
    if (misses && !alarm.empty()) behindGap_ = {*id, alarm};
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
    self->leave();
  });
}

// The own stream has had its time; it stays when the feed is held again meanwhile.
void SharedFeeds::Feed::leave() {
  bringAhead();
  if (state_ == State::Leaving) {
    state_ = State::Reader;
    closeOwn();
  }
  overlapEnds();
}

void SharedFeeds::Feed::bringAhead() {
  for (const std::string& alarm : std::exchange(ahead_, {})) {
    if (overlap_->isFirst(Overlap::Others, alarm)) sink_(alarm);
  }
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
  const MutexLock lock(mutex_);
  if (!last_ || isFilling_) return;
  fillAgain_ = false;
  // What is published later may come too late for the answer.
  isFilling_ = askForMissing([self = shared_from_this(), to = fillTo_](const RedisAnswer* answer) {
    self->filled(answer, to);
  });
}

bool SharedFeeds::Feed::askForMissing(RedisClient::Done done) {
  return redis_.send(
      {"XRANGE", stream_, '(' + last_->text(), "+", "COUNT", std::to_string(kFillAlarms)},
      std::move(done));
}

// What a server has refused is asked for again with the next message, which may have come already.
void SharedFeeds::Feed::filled(const RedisAnswer* answer, const AlarmId& to) {
  bool again = false;
  {
    const MutexLock lock(mutex_);
    isFilling_ = false;
    if (!last_ || stopped_ || (state_ != State::Reader && state_ != State::Leaving)) return;
    const bool more = answer && takeStored(*answer);
    if (answer && !more) skipLost(to);
    again = std::exchange(fillAgain_, false) || more;
  }
  if (again) fill();
}

// What the stream has not is gone, but for what came with the message that told of it.
void SharedFeeds::Feed::skipLost(const AlarmId& to) {
  const auto [id, alarm] = std::exchange(behindGap_, {});
  if (*last_ < id) {
    owner_.counts_.missed.add(behind(id) - 1);
    owner_.counts_.received.add();
    last_ = id;
    deliverFromOthers(alarm);
  }
  if (*last_ < to) {
    owner_.counts_.missed.add(behind(to));
    last_ = to;
  }
}

// An id, the field's name and the alarm of each. Whether there may be more.
bool SharedFeeds::Feed::takeStored(const RedisAnswer& answer) {
  for (std::size_t i = 0; i + 2 < answer.texts.size(); i += 3) {
    const auto id = idOf(answer.texts[i]);
    if (!id || (last_ && *id <= *last_)) continue;
    owner_.counts_.missed.add(behind(*id) - 1);
    owner_.counts_.filled.add();
    last_ = id;
    deliverFromOthers(answer.texts[i + 2]);
  }
  return answer.texts.size() >= 3 * kFillAlarms;
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
