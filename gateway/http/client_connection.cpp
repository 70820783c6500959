// See client_connection.h.
#include "gateway/http/client_connection.h"

#include <string>
#include <type_traits>
#include <utility>

#include "gateway/log/access_log.h"
#include "gateway/log/client_log.h"
#include "gateway/log/log.h"
#include "gateway/log/request_id.h"
#include "platform/rest_protocol.h"

namespace qn {
namespace {

constexpr std::size_t kScratchKept = 256 * 1024;
constexpr std::size_t kShortBody = 16 * 1024;  // goes out from one buffer with its head
constexpr int kSuccess = 200;
constexpr int kUnauthorized = 401;

// The message being made on this thread; a connection owns only what could not be sent at once.
std::string& scratch() {
  thread_local std::string buffer;
  if (buffer.capacity() > kScratchKept) std::string().swap(buffer);
  buffer.clear();
  return buffer;
}

void logStream(const ExchangeState& stream, std::string_view state) {
  const RequestIdScope idScope(stream.requestId());
  const LoggedIn login = stream.login();
  logInfo("stream to {} for \"{}\", device {}: {}", stream.clientAddress(), login.user,
          login.device, state);
}

}  // namespace

template <class Stream>
ClientConnection<Stream>::ClientConnection(std::shared_ptr<ServiceCore> core, std::size_t reactor,
                                           Stream stream, Arrival arrival)
    : Base(std::move(stream), arrival.peer.to_string()),
      core_(std::move(core)),
      arrival_(std::move(arrival)),
      requests_(*this, *core_, *this),
      answers_(*this, *core_, [this] { onSent(); }),
      parts_(answers_, *core_),
      reactor_(static_cast<uint32_t>(reactor)) {}

template <class Stream>
bool ClientConnection<Stream>::onOwnThread() const {
  return core_->reactors.context(reactor_).get_executor().running_in_this_thread();
}

template <class Stream>
std::shared_ptr<ClientConnection<Stream>> ClientConnection<Stream>::self() {
  return std::static_pointer_cast<ClientConnection>(this->shared_from_this());
}

template <class Stream>
void ClientConnection<Stream>::start() {
  this->run([this] {
    core_->open[reactor_].insert(this);
    if (core_->stopping) return close();
    boost::system::error_code ec;
    auto& socket = this->stream().lowest_layer();
    socket.non_blocking(true, ec);
    if (!ec) socket.set_option(boost::asio::ip::tcp::no_delay(true), ec);
    if (ec) return close();  // the peer has gone already
    if constexpr (kTls) {
      shakeHands();
    } else {
      begin();
    }
  });
}

template <class Stream>
void ClientConnection<Stream>::begin() {
  if (arrival_.access == Access::Nothing) return onRefused(OwnAnswer::Overloaded);
  requests_.resume();
}

// Memory is taken, and the expensive part done, when the client has said something and its turn has
// come.
template <class Stream>
void ClientConnection<Stream>::shakeHands() {
  if constexpr (kTls) {
    if (!core_->tls()) return close();  // switched off since it was accepted
    const bool trusted = core_->trusted().contains(arrival_.peer);
    this->setDeadline(core_->handshakeTime());
    handshake_.emplace(*core_->handshakes[reactor_], *this,
                       trusted ? boost::asio::ip::address() : clientNetwork(arrival_.peer));
    this->stream().async_await_handshake(this->guarded([this](const auto& ec) {
      if (ec) return onHandshake(ec);
      handshake_->take(this->guarded([this] {
        if (!core_->tls()) return close();
        this->stream().makeSession(core_->tls()->context());
        this->stream().async_handshake(
            this->guarded([this](const auto& error) { onHandshake(error); }));
      }));
    }));
  }
}

template <class Stream>
void ClientConnection<Stream>::onHandshake(const boost::system::error_code& ec) {
  if constexpr (kTls) {
    if (ec) {
      logClient(LogLevel::Info, this->peer(), "TLS handshake of {} failed: {}", this->peer(),
                ec.message());
      return close();
    }
    handshake_->succeeded(SSL_session_reused(this->stream().ssl()) == 1);
    handshake_.reset();
    begin();
  }
}

template <class Stream>
void ClientConnection<Stream>::close() {
  this->end();
}

template <class Stream>
void ClientConnection<Stream>::closeUnlessAllowed() {
  if (!parts_.isAllowed()) close();
}

template <class Stream>
void ClientConnection<Stream>::onEnd() {
  handshake_.reset();
  endRequest();
  requests_.end();
  answers_.end();
  if (parts_.exchange()) logStream(*parts_.exchange(), "closed");
  parts_.end();
  if (awaited_) {
    core_->counts.here().abandoned.add();
    std::exchange(awaited_, nullptr)->detach();
  }
  core_->open[reactor_].erase(this);
  arrival_.place.giveBack();
}

template <class Stream>
void ClientConnection<Stream>::onDeadline() {
  if (requests_.onDeadline()) return;
  if (!awaited_) return close();  // idle, or a peer that takes nothing
  const ExchangePtr late = awaited_;
  if (late->finish(OwnAnswer::GatewayTimeout)) return;
  if (std::exchange(late_, true)) return close();
  this->setDeadline(core_->bounds.stalled);  // another thread's answer is on its way here
}

template <class Stream>
ExchangePtr ClientConnection<Stream>::onHead(const RequestHead& head) {
  const TrustedProxies& trusted = core_->trusted();
  std::string address = trusted.contains(arrival_.peer)
                            ? trusted.client(arrival_.peer, head.fields).to_string()
                            : this->peer();
  return ExchangeState::create(head, {std::move(address), arrival_.port, self()});
}

template <class Stream>
void ClientConnection<Stream>::onRequest(const ExchangePtr& exchange, std::string_view body) {
  awaited_ = exchange;
  late_ = false;
  counted_ = core_->enterRequest();
  if (counted_) {
    this->setDeadline(core_->bounds.answer);
    handedOver_ = this->deadline() - core_->bounds.answer;
    core_->handOver(exchange, arrival_.access, body);
  } else {
    handedOver_ = Base::Clock::now();
    exchange->finish(OwnAnswer::Overloaded);
  }
}

template <class Stream>
void ClientConnection<Stream>::onRefused(OwnAnswer answer) {
  closeAfter_ = true;
  core_->counts.here().refused[static_cast<std::size_t>(answer)].add();
  const std::string message = ownMessage(answer);
  answers_.send({message}, [this] { return core_->answerShare(arrival_.peer); });
}

template <class Stream>
void ClientConnection<Stream>::onPeerDone() {
  if (awaited_) awaited_->clientEnded();
}

template <class Stream>
Ending ClientConnection<Stream>::endingOf(const ExchangeState& exchange) const {
  const bool goesOn = exchange.keepAlive() && !core_->stopping && !core_->leaving;
  return goesOn ? Ending::KeepAlive : Ending::Close;
}

template <class Stream>
void ClientConnection<Stream>::deliver(const ExchangePtr& exchange, std::string_view body) {
  const Ending ending = endingOf(*exchange);
  const auto appendHead = [&](std::string& head) {
    exchange->appendHead(head, body.size(), ending);
    if (!exchange->sendsBody()) body = {};
  };
  const SharedBytes keeper = body.size() > kShortBody ? ReplyInHand::holding(body) : nullptr;
  if (onOwnThread()) {
    std::string& head = scratch();
    appendHead(head);
    if (body.size() <= kShortBody) head += std::exchange(body, {});
    return writeAnswer(exchange, {head, body, keeper}, ending);
  }
  std::string head;
  appendHead(head);
  if (!keeper) head += std::exchange(body, {});
  this->post([this, exchange, ending, head = std::move(head), body, keeper] {
    writeAnswer(exchange, {head, body, keeper}, ending);
  });
}

template <class Stream>
void ClientConnection<Stream>::writeAnswer(const ExchangePtr& exchange, const Message& message,
                                           Ending ending) {
  if (awaited_ != exchange) return;
  countAnswer(*exchange, message.size());
  endRequest();
  awaited_.reset();
  closeAfter_ = ending == Ending::Close;
  answers_.send(message, [&] { return core_->answerShare(*exchange); });
}

template <class Stream>
void ClientConnection<Stream>::countAnswer(const ExchangeState& exchange, std::size_t bytes) {
  const auto took = Base::Clock::now() - handedOver_;
  const auto waited = exchange.deviceTime();
  const int status = exchange.status();
  core_->counts.here().countAnswer(exchange.url(), exchange.method(), status, took - waited);
  if (!isAccessLogged(status)) return;
  // The challenge that a login begins with is no error.
  const bool challenge = status == kUnauthorized && exchange.header("Authorization").empty();
  if (challenge && !isAccessLogged(kSuccess)) return;
  using std::chrono::duration_cast, std::chrono::microseconds;
  const LoggedIn login = exchange.login();
  logAccess({exchange.requestId(), exchange.clientAddress(), login.user, login.device,
             QNBase::CRESTfulProtocol::GetMethod(static_cast<unsigned char>(exchange.method())),
             exchange.url(), status, bytes, duration_cast<microseconds>(took),
             duration_cast<microseconds>(waited)});
}

template <class Stream>
void ClientConnection<Stream>::endRequest() {
  if (std::exchange(counted_, false)) core_->leaveRequest();
}

template <class Stream>
void ClientConnection<Stream>::onSent() {
  if (closeAfter_ || requests_.isExhausted()) return linger();
  requests_.resume();
}

template <class Stream>
void ClientConnection<Stream>::linger() {
  boost::system::error_code ec;
  this->stream().endSending(ec);
  if (ec) return close();
  this->setDeadline(core_->bounds.linger);
  requests_.discard();
}

template <class Stream>
void ClientConnection<Stream>::openStream(const ExchangePtr& exchange) {
  if (onOwnThread()) return beginStream(exchange);
  this->post([this, exchange] { beginStream(exchange); });
}

template <class Stream>
void ClientConnection<Stream>::beginStream(const ExchangePtr& exchange) {
  if (awaited_ != exchange) {
    exchange->detach();
    return;
  }
  countAnswer(*exchange, 0);
  endRequest();
  awaited_.reset();
  parts_.begin(exchange);
  logStream(*exchange, "open");
  requests_.watch();
  closeUnlessAllowed();  // the configuration may have changed since the login
}

template <class Stream>
void ClientConnection<Stream>::wakeStream() {
  core_->senders[reactor_]->add(self());
}

template <class Stream>
bool ClientConnection<Stream>::sendParts(Sending when) {
  bool sent = true;
  this->run([&] { sent = parts_.push(when); });
  return sent;
}

template class ClientConnection<TcpStream>;
template class ClientConnection<TlsClientStream>;

}  // namespace qn
