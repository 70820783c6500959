// One client connection: hands the requests that it receives over one at a time and sends their
// answers, or carries a stream. Made by the listener.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <type_traits>

#include "gateway/http/answer_sender.h"
#include "gateway/http/client_stream.h"
#include "gateway/http/exchange.h"
#include "gateway/http/part_pusher.h"
#include "gateway/http/request_receiver.h"
#include "gateway/http/service_core.h"
#include "gateway/tls/tls_stream.h"

namespace qn {

using TlsClientStream = TlsStream<TcpStream>;

// Answers from other threads are posted to the stream's reactor, where everything else happens.
// Over TlsClientStream, a handshake comes first.
template <class Stream>
class ClientConnection final : public ClientStream<Stream>,
                               public AnswerLink,
                               public OpenConnection,
                               private RequestTaker {
 public:
  ClientConnection(std::shared_ptr<ServiceCore> core, std::size_t reactor, Stream stream,
                   Arrival arrival);

  // On the reactor.
  void start();
  void close() override;
  std::optional<std::chrono::steady_clock::time_point> idleSince() const override {
    return handshake_ ? handshake_->since() : requests_.idleSince();
  }
  void closeUnlessAllowed() override;
  bool isStream() const override { return parts_.exchange() != nullptr; }

  // AnswerLink; any thread.
  void deliver(const ExchangePtr& exchange, std::string_view body) override;
  void openStream(const ExchangePtr& exchange) override;
  void wakeStream() override;
  bool sendParts(Sending when) override;
  void partDropped() override { core_->counts.here().partsDropped.add(); }

 private:
  using Base = ClientStream<Stream>;
  static constexpr bool kTls = std::is_same_v<Stream, TlsClientStream>;

  bool onOwnThread() const;

  void begin();
  void shakeHands();  // both of TLS alone
  void onHandshake(const boost::system::error_code& ec);

  ExchangePtr onHead(const RequestHead& head) override;
  void onRequest(const ExchangePtr& exchange, std::string_view body) override;
  void onRefused(OwnAnswer answer) override;
  void onPeerDone() override;
  void onDeadline() override;
  void onEnd() override;

  void writeAnswer(const ExchangePtr& exchange, const Message& message, Ending ending);
  void onSent();
  void linger();
  void beginStream(const ExchangePtr& exchange);
  void endRequest();
  void countAnswer(const ExchangeState& exchange, std::size_t bytes);
  Ending endingOf(const ExchangeState& exchange) const;
  std::shared_ptr<ClientConnection> self();

  const std::shared_ptr<ServiceCore> core_;
  Arrival arrival_;
  std::optional<Handshakes::Turn> handshake_;  // while it is under way

  RequestReceiver<Stream> requests_;
  AnswerSender<Stream> answers_;
  PartPusher<Stream> parts_;
  ExchangePtr awaited_;                          // whose answer is not there yet
  typename Base::Clock::time_point handedOver_;  // the awaited exchange
  const uint32_t reactor_;
  bool counted_ = false;     // among the core's requests in flight
  bool late_ = false;        // the awaited answer's time is over
  bool closeAfter_ = false;  // the answer
};

extern template class ClientConnection<TcpStream>;
extern template class ClientConnection<TlsClientStream>;

}  // namespace qn
