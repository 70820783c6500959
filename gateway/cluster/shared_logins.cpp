// See shared_logins.h.
#include "gateway/cluster/shared_logins.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>
#include <vector>

#include "gateway/auth/digest.h"
#include "text/hex.h"
#include "text/number.h"

namespace qn {
namespace {

// A key's hash has the failures by the hash of the user's name.
constexpr char kFail[] =
    "redis.call('HINCRBY', KEYS[1], ARGV[1], 1) "
    "redis.call('PEXPIRE', KEYS[1], ARGV[2]) "
    "redis.call('PUBLISH', ARGV[3], 'failed ' .. ARGV[4] .. ' ' .. ARGV[2] .. ' ' .. "
    "table.concat(redis.call('HGETALL', KEYS[1]), ' '))";
// What a gateway knows, where it is more: again as often as one likes.
constexpr char kRaise[] =
    "local field = nil "
    "for word in string.gmatch(ARGV[4], '%d+') do "
    "  if not field then field = word else "
    "    if tonumber(redis.call('HGET', KEYS[1], field) or 0) < tonumber(word) then "
    "      redis.call('HSET', KEYS[1], field, word) end "
    "    field = nil end end "
    "if redis.call('PTTL', KEYS[1]) < tonumber(ARGV[2]) then "
    "  redis.call('PEXPIRE', KEYS[1], ARGV[2]) end "
    "redis.call('PUBLISH', ARGV[1], 'failed ' .. ARGV[3] .. ' ' .. redis.call('PTTL', KEYS[1]) .. "
    "' ' .. table.concat(redis.call('HGETALL', KEYS[1]), ' '))";
// A lock that this gateway had not heard of stays, and it hears of it now.
constexpr char kForget[] =
    "local all = 0 "
    "for _, count in ipairs(redis.call('HVALS', KEYS[1])) do all = all + tonumber(count) end "
    "if all >= tonumber(ARGV[4]) then "
    "  redis.call('PUBLISH', ARGV[2], 'failed ' .. ARGV[3] .. ' ' .. redis.call('PTTL', KEYS[1]) "
    "    .. ' ' .. table.concat(redis.call('HGETALL', KEYS[1]), ' ')) "
    "  return end "
    "redis.call('HDEL', KEYS[1], ARGV[1]) "
    "redis.call('PUBLISH', ARGV[2], 'forgotten ' .. ARGV[3] .. ' ' .. ARGV[1])";
constexpr char kUnlock[] =
    "redis.call('DEL', KEYS[1]) redis.call('PUBLISH', ARGV[1], 'unlocked ' .. ARGV[2])";
// One page of what others have counted, behind the cursor of the next.
constexpr char kLoad[] =
    "local page = redis.call('SCAN', ARGV[1], 'MATCH', ARGV[2] .. '*', 'COUNT', 200) "
    "local found = {page[1]} "
    "for _, key in ipairs(page[2]) do "
    "  found[#found + 1] = string.sub(key, #ARGV[2] + 1) .. ' ' .. redis.call('PTTL', key) .. ' ' "
    "    .. table.concat(redis.call('HGETALL', key), ' ') end "
    "return found";
// To whoever has the nonce: the last one who took it, else who made it. How many hear it.
constexpr char kAsk[] =
    "return redis.call('PUBLISH', ARGV[1] .. (redis.call('GET', KEYS[1]) or ARGV[2]), ARGV[3])";
constexpr char kGive[] =
    "redis.call('SET', KEYS[1], ARGV[1], 'PX', ARGV[2]) "
    "return redis.call('PUBLISH', ARGV[3], ARGV[4])";

// Takes the text up to the next blank off the front.
std::string_view takeWord(std::string_view& text) {
  const std::size_t end = std::min(text.find(' '), text.size());
  const std::string_view word = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return word;
}

template <class Number>
std::optional<Number> takeNumber(std::string_view& text, int base = 10) {
  return text::wholeNumber<Number>(takeWord(text), base);
}

std::string hexOf(uint64_t number) {
  std::array<uint8_t, 8> bytes{};
  for (std::size_t i = 0; i < 8; ++i) bytes[i] = uint8_t(number >> (56 - 8 * i));
  return text::hexOf(bytes);
}

std::string hexOf(uint32_t number) { return hexOf(uint64_t(number)).substr(8); }

uint32_t newNumber() {
  std::array<uint8_t, 4> bytes{};
  fillRandom(bytes.data(), bytes.size());
  return uint32_t(bytes[0]) << 24 | uint32_t(bytes[1]) << 16 | uint32_t(bytes[2]) << 8 | bytes[3];
}

std::optional<CountWindow> windowOf(std::string_view hex) {
  CountWindow::Bytes bytes;
  if (hex.size() != 2 * bytes.size()) return std::nullopt;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const auto byte = text::wholeNumber<uint8_t>(hex.substr(2 * i, 2), 16);
    if (!byte) return std::nullopt;
    bytes[i] = *byte;
  }
  CountWindow window;
  window.setBytes(bytes);
  return window;
}

}  // namespace

SharedLogins::SharedLogins(RedisClient& redis, Login& login, std::string prefix,
                           std::string_view nameKey, std::chrono::milliseconds fetchTime)
    : redis_(redis),
      login_(login),
      prefix_(std::move(prefix)),
      channel_(prefix_ + "logins"),
      self_(hexOf(newNumber())),
      fetchTime_(fetchTime) {
  login.join(*this, text::wholeNumber<uint32_t>(self_, 16).value_or(0), nameKey);
  redis.listen(channel_, [this](std::string_view message) { hear(message); });
  redis.listen(prefix_ + "to:" + self_, [this](std::string_view message) { asked(message); });
  redis.onConnected([this] { connected(); });
}

std::string SharedLogins::keyOf(ClientNetwork network) const {
  return prefix_ + "failures:" + hexOf(network.number());
}

std::string SharedLogins::keyOf(std::string_view nonce, std::string_view user) const {
  return (prefix_ + "nonce:").append(nonce).append(":").append(user);
}

void SharedLogins::failed(ClientNetwork network, uint32_t name, std::chrono::seconds lockTime) {
  const bool sent = redis_.send({"EVAL", kFail, "1", keyOf(network), std::to_string(name),
                                 std::to_string(std::chrono::milliseconds(lockTime).count()),
                                 channel_, hexOf(network.number())});
  if (sent) counts_.failures.add();
}

void SharedLogins::forgotten(ClientNetwork network, uint32_t name, const LockOptions& options) {
  redis_.send({"EVAL", kForget, "1", keyOf(network), std::to_string(name), channel_,
               hexOf(network.number()), std::to_string(options.maxAttempts)});
}

void SharedLogins::unlocked(ClientNetwork network) {
  redis_.send({"EVAL", kUnlock, "1", keyOf(network), channel_, hexOf(network.number())});
}

void SharedLogins::connected() {
  for (const Login::Known& known : login_.knownFailures()) {
    std::string failures;
    for (const Lockout::Failures& each : known.failures) {
      failures += std::to_string(each.name) + ' ' + std::to_string(each.count) + ' ';
    }
    redis_.send({"EVAL", kRaise, "1", keyOf(known.network), channel_,
                 std::to_string(known.left.count()), hexOf(known.network.number()), failures});
  }
  load("0");
}

void SharedLogins::load(const std::string& cursor) {
  redis_.send({"EVAL", kLoad, "0", cursor, prefix_ + "failures:"},
              [this](const RedisAnswer* answer) {
                if (!answer || answer->texts.empty()) return;
                for (std::size_t i = 1; i < answer->texts.size(); ++i) learn(answer->texts[i]);
                if (answer->texts[0] != "0") load(answer->texts[0]);
              });
}

void SharedLogins::hear(std::string_view message) {
  const std::string_view what = takeWord(message);
  if (what == "failed") return learn(message);
  const auto network = takeNumber<uint64_t>(message, 16);
  if (!network) return;
  if (what == "unlocked") return login_.unlockedElsewhere(ClientNetwork::ofNumber(*network));
  const auto name = takeNumber<uint32_t>(message);
  if (what == "forgotten" && name) {
    login_.forgottenElsewhere(ClientNetwork::ofNumber(*network), *name);
  }
}

// "NETWORK MILLISECONDS NAME COUNT NAME COUNT ..."
void SharedLogins::learn(std::string_view record) {
  const auto network = takeNumber<uint64_t>(record, 16);
  const auto left = takeNumber<int64_t>(record);
  if (!network || !left || *left <= 0) return;
  Login::Known known{ClientNetwork::ofNumber(*network), {}, std::chrono::milliseconds(*left)};
  while (!record.empty()) {
    const auto name = takeNumber<uint32_t>(record);
    const auto count = takeNumber<uint32_t>(record);
    if (!name || !count) return;
    known.failures.push_back({*name, *count});
  }
  login_.failedElsewhere(known);
}

void SharedLogins::fetch(uint32_t maker, std::string_view nonce, std::string_view user,
                         std::function<void()> done) {
  if (!redis_.engine().isUp()) {
    countLoss(NonceLoss::NoEngine);
    return done();
  }
  redis_.post([this, maker, nonce = std::string(nonce), user = std::string(user),
               done = std::move(done)]() mutable { ask(maker, nonce, user, std::move(done)); });
}

void SharedLogins::ask(uint32_t maker, const std::string& nonce, const std::string& user,
                       std::function<void()> done) {
  const uint64_t token = ++lastToken_;
  auto deadline = std::make_unique<boost::asio::steady_timer>(redis_.context(), fetchTime_);
  deadline->async_wait([this, token](const boost::system::error_code& error) {
    if (!error) lose(token, NonceLoss::NoAnswer);
  });
  fetches_.emplace(token, Fetch{std::move(done), std::move(deadline)});
  const std::string message =
      "ask " + self_ + ' ' + std::to_string(token) + ' ' + nonce + ' ' + user;
  const bool sent =
      redis_.send({"EVAL", kAsk, "1", keyOf(nonce, user), prefix_ + "to:", hexOf(maker), message},
                  [this, token](const RedisAnswer* answer) {
                    if (!answer || answer->texts.empty()) return lose(token, NonceLoss::NoEngine);
                    if (answer->texts[0] == "0") lose(token, NonceLoss::NoHolder);
                  });
  if (!sent) lose(token, NonceLoss::NoEngine);
}

void SharedLogins::lose(uint64_t token, NonceLoss reason) {
  if (fetches_.contains(token)) countLoss(reason);
  finish(token);
}

void SharedLogins::finish(uint64_t token) {
  const auto found = fetches_.extract(token);
  if (found) found.mapped().done();
}

void SharedLogins::asked(std::string_view message) {
  const std::string_view what = takeWord(message);
  const std::string_view first = takeWord(message);
  if (what == "given") return given(first, message);
  if (what != "ask") return;
  const std::string_view token = takeWord(message);
  const std::string_view nonce = takeWord(message);
  give(first, token, nonce, message);
}

// A gateway that asks itself has lost what it is said to have.
void SharedLogins::give(std::string_view asker, std::string_view token, std::string_view nonce,
                        std::string_view user) {
  const auto state = asker == self_ ? std::nullopt : login_.giveNonce(nonce, user);
  std::string message = "given " + std::string(token);
  const std::string to = prefix_ + "to:" + std::string(asker);
  if (!state) {
    redis_.send({"PUBLISH", to, message});
    return;
  }
  counts_.noncesGiven.add();
  message += ' ' + std::to_string(state->ageTicks) + ' ' + text::hexOf(state->counts.bytes()) + ' ';
  message.append(nonce).append(" ").append(user);
  constexpr auto kKept = std::chrono::milliseconds(Nonces::kLife);
  redis_.send(
      {"EVAL", kGive, "1", keyOf(nonce, user), asker, std::to_string(kKept.count()), to, message});
}

// Also when nobody waits for it any more: it is here now.
void SharedLogins::given(std::string_view token, std::string_view rest) {
  const auto age = takeNumber<uint32_t>(rest);
  const auto window = windowOf(takeWord(rest));
  const std::string_view nonce = takeWord(rest);
  const auto number = text::wholeNumber<uint64_t>(token).value_or(0);
  if (!age || !window) return lose(number, NonceLoss::NotGiven);
  counts_.noncesTaken.add();
  login_.takeNonce(nonce, rest, {*age, *window});
  finish(number);
}

}  // namespace qn
