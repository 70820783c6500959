// See device_test.h.
#include "gateway/accounts/device_test.h"

#include <fmt/format.h>
#include <json/json.h>

#include <boost/asio/io_context.hpp>
#include <optional>
#include <string>
#include <utility>

#include "gateway/config/toml_table.h"
#include "gateway/devices/device.h"
#include "gateway/devices/dialer.h"
#include "gateway/devices/message.h"

namespace qn {
namespace {

using Clock = std::chrono::steady_clock;
using ErrorCode = boost::system::error_code;

constexpr std::size_t kBodyBytes = 1024 * 1024;

const char* nameOf(Dialer::Step step) {
  switch (step) {
    case Dialer::Step::Resolving:
      return "resolve";
    case Dialer::Step::Connecting:
      return "connect";
    default:
      return "TLS";
  }
}

// One try, on this thread.
class DeviceTrial {
 public:
  DeviceTrial(const DeviceConfig& config, std::ostream& out)
      : device_(config, {}, names_),
        target_(config.basePath + "/KAVRO/System/deviceInfo?format=json&devIndex=" + config.index),
        out_(out) {}

  bool run() { return connect() && logIn() && readName(); }

 private:
  bool connect() {
    ErrorCode error = await([this](auto done) { dialer_.start(done); });
    if (error) return failed(nameOf(step_), error.message());
    connected_ = true;
    return told(nameOf(step_), resultOf(step_));
  }

  // Requests until one is answered with something else than a refusal.
  bool logIn() {
    for (;;) {
      std::string authorization;
      device_.login.prepare(ticket_, "GET", target_, authorization);
      if (const ErrorCode error = exchange(authorization)) return failed("login", error.message());
      constexpr int kUnauthorized = 401;
      if (reply_->status() != kUnauthorized) {
        const std::string scheme = authorization.substr(0, authorization.find(' '));
        return told("login", scheme.empty() ? "the device asks for none" : scheme + ", accepted");
      }
      if (device_.config.username.empty()) {
        return failed("login", "the device asks for one, and no username is configured");
      }
      if (!device_.login.refused(ticket_, reply_->challenge())) {
        return failed("login",
                      "refused: a wrong username or password, or only a kind of login "
                      "that auth does not allow");
      }
      if (!reply_->keep_alive() && !reconnect()) return false;
    }
  }

  bool readName() {
    if (reply_->status() != 200) {
      return failed("name", "status " + std::to_string(reply_->status()));
    }
    Json::Value document;
    const std::string body(reply_->body());
    const bool read = Json::Reader().parse(body, document) && document.isObject() &&
                      document["DeviceInfo"].isObject();
    if (!read || !document["DeviceInfo"]["deviceName"].isString()) {
      return failed("name", "the answer is no DeviceInfo with a deviceName");
    }
    return told("name", tomlText(document["DeviceInfo"]["deviceName"].asString()));
  }

  bool reconnect() {
    dialer_.cancel();
    buffer_.clear();
    const ErrorCode error = await([this](auto done) { dialer_.start(done); });
    return !error || failed("login", error.message());
  }

  ErrorCode exchange(const std::string& authorization) {
    writeRequestHead(head_, device_, {"GET", target_, {}, authorization});
    std::string_view unsent = head_;
    while (!unsent.empty()) {
      std::size_t count = 0;
      const ErrorCode error = await([&](auto done) {
        stream_.asyncWriteSome(boost::asio::buffer(unsent), [&count, done](ErrorCode ec, auto n) {
          count = n;
          done(ec);
        });
      });
      if (error) return error;
      unsent.remove_prefix(count);
    }
    reply_.emplace(kBodyBytes);
    return readReply();
  }

  ErrorCode readReply() {
    while (!reply_->is_done()) {
      const ErrorCode error = await([&](auto done) {
        stream_.asyncReadSome(buffer_.space(), [this, done](ErrorCode ec, auto n) {
          buffer_.commit(n);
          done(ec);
        });
      });
      ErrorCode parsed;
      if (error == boost::asio::error::eof && reply_->is_header_done()) {
        reply_->put_eof(parsed);
        return reply_->is_done() ? ErrorCode() : error;
      }
      if (error) return error;
      buffer_.consume(reply_->put(boost::asio::buffer(buffer_.unread()), parsed));
      if (parsed && parsed != boost::beast::http::error::need_more) return parsed;
      reply_->keepBody();
    }
    return {};
  }

  // Starts an operation and turns the reactor until it has ended, or the time is over.
  template <class Start>
  ErrorCode await(Start start) {
    std::optional<ErrorCode> result;
    start([&result](const ErrorCode& error) { result = error; });
    noteStep();
    reactor_.restart();
    while (!result && reactor_.run_one_until(deadline_) > 0) noteStep();
    if (result) return *result;
    dialer_.cancel();  // ends what is under way
    reactor_.restart();
    while (!result && reactor_.run_one() > 0) continue;
    return boost::asio::error::timed_out;
  }

  // The dialer has gone on to another step: the one before has succeeded.
  void noteStep() {
    if (connected_ || dialer_.step() == step_) return;
    told(nameOf(step_), resultOf(step_));
    step_ = dialer_.step();
  }

  std::string resultOf(Dialer::Step step) {
    switch (step) {
      case Dialer::Step::Resolving: {
        std::string addresses = device_.config.host + ":";
        for (const auto& each : device_.address.endpoints()) {
          addresses += ' ' + each.address().to_string();
        }
        return addresses;
      }
      case Dialer::Step::Connecting: {
        ErrorCode ignored;
        const auto peer = stream_.socket().remote_endpoint(ignored);
        return fmt::format("{} port {}", peer.address().to_string(), peer.port());
      }
      default:
        return std::string(SSL_get_version(stream_.ssl())) + ", " + trust();
    }
  }

  const char* trust() const {
    if (!device_.config.fingerprint.empty()) return "the certificate is the pinned one";
    if (!device_.config.verify) return "the certificate is NOT verified";
    return "the certificate is verified";
  }

  bool told(const char* step, const std::string& result) {
    const auto now = Clock::now();
    const auto time = std::chrono::duration_cast<std::chrono::milliseconds>(now - since_);
    since_ = now;
    out_ << fmt::format("{:8} {} ({} ms)\n", step, result, time.count()) << std::flush;
    return true;
  }
  bool failed(const char* step, const std::string& why) {
    told(step, "FAILED: " + why);
    return false;
  }

  boost::asio::io_context reactor_{1};
  NameResolver names_;
  Device device_;
  DeviceStream stream_{reactor_};
  Dialer dialer_{device_, stream_};
  DeviceLogin::Ticket ticket_;
  const std::string target_;
  std::ostream& out_;
  const Clock::time_point deadline_ = Clock::now() + kDeviceTestTime;
  Clock::time_point since_ = Clock::now();
  // Of the first connection. An address needs no resolving.
  Dialer::Step step_ =
      device_.address.endpoints().empty() ? Dialer::Step::Resolving : Dialer::Step::Connecting;
  bool connected_ = false;
  std::string head_;
  ReadBuffer buffer_;
  std::optional<ReplyParser> reply_;
};

}  // namespace

bool testDevice(const DeviceConfig& config, std::ostream& out) {
  return DeviceTrial(config, out).run();
}

}  // namespace qn
