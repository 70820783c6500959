// A hostile device: what it says to the device bus, or to the alarm feed, on its connections. The
// first byte says to whom, with which login and in pieces of what size; the rest is what it answers
// to one request after the other: 0xFF ends an answer, 0xFE ends the connection too.
//
// Everything runs on this thread, over loopback, until nothing is left to do; no time passes.
#include <array>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>
#include <memory>
#include <string>

#include "fuzz/require.h"
#include "gateway/alarmbus/device_feed.h"
#include "gateway/devicebus/shard.h"
#include "gateway/log/log.h"

namespace {

namespace asio = boost::asio;
using asio::ip::tcp;

constexpr std::size_t kReplyBytes = 2048;
constexpr const char* kPassword = "secret-Password1";
constexpr const char* kBasic = "YWRtaW46c2VjcmV0LVBhc3N3b3JkMQ==";  // of admin and the password
constexpr std::array<std::size_t, 4> kPieces{1, 7, 100, 100'000};

class HostileDevice {
 public:
  explicit HostileDevice(asio::io_context& reactor)
      : acceptor_(reactor, {asio::ip::address_v4::loopback(), 0}) {
    accept();
  }

  uint16_t port() const { return acceptor_.local_endpoint().port(); }
  void learn(std::string_view script, std::size_t piece) {
    script_ = script;
    piece_ = piece;
    requests_ = 0;
  }
  int requests() const { return requests_; }

 private:
  struct Session : std::enable_shared_from_this<Session> {
    Session(HostileDevice& deviceIn, tcp::socket socketIn)
        : device(deviceIn), socket(std::move(socketIn)) {
      socket.set_option(tcp::no_delay(true));
      socket.set_option(asio::socket_base::linger(true, 0));  // leaves no port occupied
    }

    void read() {
      socket.async_read_some(asio::buffer(room), [self = shared_from_this()](auto error, auto n) {
        if (error) return;
        self->heard.append(self->room.data(), n);
        self->device.check(self->heard);
        if (self->heard.find("\r\n\r\n") == std::string::npos) return self->read();
        self->heard.clear();
        ++self->device.requests_;
        self->say();
      });
    }

    void say() {
      boost::system::error_code error;
      const std::string_view rest = device.script_;
      if (rest.empty()) return read();  // hangs
      const auto first = static_cast<unsigned char>(rest.front());
      if (first >= 0xFE) device.script_.remove_prefix(1);
      if (first == 0xFE) socket.close(error);
      if (first >= 0xFE) return first == 0xFF ? read() : void();
      const std::size_t count =
          std::min({device.piece_, rest.find('\xFF'), rest.find('\xFE'), rest.size()});
      asio::write(socket, asio::buffer(rest.data(), count), error);
      device.script_.remove_prefix(count);
      if (!error) asio::post(socket.get_executor(), [self = shared_from_this()] { self->say(); });
    }

    HostileDevice& device;
    tcp::socket socket;
    std::string heard;
    std::array<char, 4096> room;
  };

  void accept() {
    acceptor_.async_accept([this](auto error, tcp::socket socket) {
      if (!error) std::make_shared<Session>(*this, std::move(socket))->read();
      accept();
    });
  }
  // Whatever it asks for, it never gets the password.
  static void check(std::string_view heard) {
    Require(heard.find(kPassword) == heard.npos && heard.find(kBasic) == heard.npos);
  }

  tcp::acceptor acceptor_;
  std::string_view script_;
  std::size_t piece_ = 1;
  int requests_ = 0;
};

struct World {
  World() {
    qn::setLogLevel("error");
    workers.stop();  // what would run there runs in place
  }
  // Until nothing happens any more.
  void settle() {
    for (int idle = 0; idle < 3; ++idle) {
      if (reactor.poll() != 0) idle = -1;
    }
  }
  const qn::DeviceConfig& publish(bool login) {
    auto configuration = std::make_shared<qn::Configuration>();
    configuration->bus.deviceConnections = 2;
    configuration->bus.replyBytes = kReplyBytes;
    configuration->devices.resize(1);
    qn::DeviceConfig& config = configuration->devices[0];
    config.index = "own";
    config.host = "127.0.0.1";
    config.port = device.port();
    if (login) config.username = "admin";
    config.password = kPassword;
    configuration->buildIndexes();
    qn::publishConfiguration(configuration);
    return qn::configuration()->devices[0];
  }

  asio::io_context reactor;
  qn::WorkerPool workers{1, 1};
  HostileDevice device{reactor};
};

class Taker final : public qn::devicebus::Recipient {
 public:
  explicit Taker(int& answers) : answers_(answers) {}
  void take(std::string_view answer, qn::devicebus::Origin origin) noexcept override {
    ++answers_;
    Require(answer.data() != nullptr && answer.size() <= kReplyBytes);
    Require(origin == qn::devicebus::Origin::Device || answer.find("errorCode") != answer.npos);
  }
  bool isTranslator() const override { return true; }

 private:
  int& answers_;
};

void askThroughTheBus(World& world, const qn::DeviceConfig& config) {
  using namespace qn::devicebus;
  constexpr std::array<std::string_view, 4> kMethods{"GET", "PUT", "HEAD", "POST"};
  std::array<int, kMethods.size()> answers{};
  qn::DeviceDirectory directory;
  qn::Sharded<qn::BusCounts> counts;
  const Answers handing(world.workers, counts);
  ReplyBudget replies;
  Shard shard(world.reactor, handing, directory, 1);
  for (std::size_t i = 0; i < kMethods.size(); ++i) {
    auto request = std::make_unique<BusRequest>(replies);
    request->method = kMethods[i];
    request->url = "/KAVRO/x?devIndex=own";
    request->recipient = std::make_unique<Taker>(answers[i]);
    request->deadline = std::chrono::steady_clock::now() + std::chrono::hours(1);
    request->device = directory.find(config);
    shard.accept(std::move(request));
  }
  world.settle();
  shard.shutDown();
  world.settle();
  for (const int count : answers) Require(count == 1);
  Require(replies.held() == 0);
  // Each may be sent again when a used connection breaks, and when a 401 asks for credentials.
  Require(world.device.requests() <= int(kMethods.size()) * (qn::DeviceLogin::kTries + 1));
}

void listenThroughAFeed(World& world, const qn::DeviceConfig& config) {
  qn::DeviceDirectory directory;
  const auto feed = std::make_shared<qn::DeviceFeed>(
      world.reactor, world.workers, directory.find(config), qn::FeedTimes{},
      [](const std::string& alarm) { Require(alarm.find('{') != alarm.npos); });
  feed->start();
  world.settle();
  feed->stop();
  world.settle();
  Require(feed.use_count() == 1);
  Require(world.device.requests() <= qn::DeviceLogin::kTries + 1);
}

}  // namespace

void fuzz(std::string_view input) {
  static World world;
  if (input.empty()) return;
  const auto first = static_cast<unsigned char>(input.front());
  const qn::DeviceConfig config = world.publish((first & 2) != 0);
  world.device.learn(input.substr(1), kPieces[first / 4 % kPieces.size()]);
  (first & 1) == 0 ? askThroughTheBus(world, config) : listenThroughAFeed(world, config);
  world.settle();
}
