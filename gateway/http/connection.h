// One client connection: reads requests, hands them over one at a time, writes their answers, or
// carries a stream. Everything happens on the reactor that the stream belongs to; answers from
// other threads are posted there. A template over the stream type: TLS is another Stream.
#pragma once

#include <boost/asio/basic_stream_socket.hpp>
#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "gateway/http/exchange.h"
#include "gateway/http/receive_buffer.h"
#include "gateway/http/request_reader.h"
#include "gateway/http/service_core.h"

namespace qn {

using TcpStream =
    boost::asio::basic_stream_socket<boost::asio::ip::tcp, boost::asio::io_context::executor_type>;

// Stream is what TcpStream is: non-blocking write_some, async_read_some, async_write_some,
// get_executor, lowest_layer.
template <class Stream>
class Connection final : public AnswerLink,
                         public OpenConnection,
                         public std::enable_shared_from_this<Connection<Stream>> {
 public:
  // `peer`, a plain address, was counted in the core's admission (its refusals when it gets
  // nothing), which the connection leaves when it closes.
  Connection(std::shared_ptr<ServiceCore> core, std::size_t reactor, Stream stream,
             const boost::asio::ip::address& peer, Access access);
  ~Connection() override;

  // On the reactor.
  void start();
  void close() override;

  // AnswerLink; any thread.
  void deliver(const ExchangePtr& exchange, std::string_view body) override;
  void openStream(const ExchangePtr& exchange) override;
  void wakeStream() override;
  void sendParts() override;

 private:
  using Clock = std::chrono::steady_clock;
  using Timer = boost::asio::basic_waitable_timer<Clock, boost::asio::wait_traits<Clock>,
                                                  boost::asio::io_context::executor_type>;
  using ErrorCode = boost::system::error_code;
  enum class Phase { Head, Body, Busy, Writing, Pushing, Linger, Closed };

  bool onOwnThread() const;
  template <class Function>
  void run(Function function);  // no exception leaves a handler
  template <class Function>
  void post(Function function);

  // Deadlines: one timer, armed again only when it expires or must expire earlier.
  void setDeadline(Clock::duration fromNow);
  void armTimer();
  void onTimer();
  void expire();

  void startRead();
  void onRead(const ErrorCode& ec, std::size_t count);
  void advance();
  bool step();
  bool readHead();
  bool readBody();
  bool onPartial(Clock::duration allowed);
  void sendContinue();
  void dispatch();
  bool refuse(ReadResult result);
  void refuse(OwnAnswer answer);
  bool discard();

  void writeAnswer(const ExchangePtr& exchange, std::string_view message, Ending ending);
  void endRequest();
  void send(std::string_view bytes);
  void writeRest();
  void onWritten(const ErrorCode& ec, std::size_t count);
  void onSent();
  void linger();

  void beginStream(const ExchangePtr& exchange);
  void boundUnsent();
  void waitForPeer();
  void onPeer(const ErrorCode& ec);
  void flushStream();
  void onPartsSent();
  Ending endingOf(const ExchangeState& exchange) const;

  const std::shared_ptr<ServiceCore> core_;
  const std::size_t reactor_;
  const boost::asio::ip::address peer_;
  const Access access_;
  const bool trusted_;
  const std::string peerText_;

  Stream stream_;
  Timer timer_;
  Clock::time_point deadline_;
  Clock::time_point timerExpiry_ = Clock::time_point::max();
  Phase phase_ = Phase::Head;
  ReceiveBuffer received_;
  RequestReader reader_;
  ExchangePtr exchange_;  // the request read or in flight, or the stream
  std::string out_;       // what the last write left over
  std::size_t written_ = 0;
  std::size_t discarded_ = 0;
  MemoryBudget::Share bodyShare_;
  MemoryBudget::Share answerShare_;
  bool counted_ = false;  // among the core's requests in flight
  bool reading_ = false;
  bool writing_ = false;
  bool advancing_ = false;
  bool timed_ = false;  // the deadline of the phase is set
  bool peerDone_ = false;
  bool closeAfter_ = false;
  bool expectsContinue_ = false;
};

extern template class Connection<TcpStream>;

}  // namespace qn
