// See server.h.
#include "subdevice/server.h"

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/address_v4.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/status.hpp>
#include <utility>

#include "subdevice/control.h"
#include "subdevice/resources.h"

namespace subdevice {
namespace {

namespace http = boost::beast::http;
using boost::asio::ip::tcp;

std::string wireText(const Reply& reply, bool keepAlive) {
  std::string text = "HTTP/1.1 " + std::to_string(reply.status) + " ";
  text += http::obsolete_reason(http::int_to_status(reply.status));
  text += "\r\nContent-Length: " + std::to_string(reply.body.size());
  if (!reply.body.empty()) text += "\r\nContent-Type: " + reply.contentType;
  if (!reply.challenge.empty()) text += "\r\nWWW-Authenticate: " + reply.challenge;
  text += keepAlive ? "\r\n\r\n" : "\r\nConnection: close\r\n\r\n";
  text += reply.body;
  return text;
}

// A whole number of megabytes of JSON text, or any other size.
Reply largeReply(std::size_t bytes) {
  const std::string head = R"({"filler": ")";
  const std::string tail = "\"}";
  Reply reply;
  reply.body = head + std::string(bytes - std::min(bytes, head.size() + tail.size()), 'x') + tail;
  return reply;
}

Request toRequest(http::request<http::string_body>&& message) {
  Request request;
  request.method = message.method_string();
  request.target = message.target();
  request.path = request.target.substr(0, request.target.find('?'));
  request.contentType = message[http::field::content_type];
  request.authorization = message[http::field::authorization];
  request.body = std::move(message.body());
  return request;
}

}  // namespace

ClientConnection::ClientConnection(boost::asio::ip::tcp::socket socket, DeviceListener& listener)
    : stream_(std::move(socket)), listener_(listener), delay_(stream_.get_executor()) {}

void ClientConnection::readRequest() {
  parser_.emplace();
  parser_->body_limit(kBodyBytes);
  parser_->header_limit(kHeadBytes);
  stream_.expires_after(kIdle);
  http::async_read(stream_, buffer_, *parser_,
                   [self = shared_from_this()](boost::system::error_code error, auto) {
                     if (error == http::error::body_limit)
                       return self->sendAndClose("HTTP/1.1 413 Payload Too Large\r\n\r\n");
                     if (error) return self->close();
                     self->serve();
                   });
}

void ClientConnection::close() {
  if (serving_) return;  // ends after its answer
  delay_.cancel();
  stream_.close();
}

void ClientConnection::serve() {
  keepAlive_ = parser_->get().keep_alive();
  request_ = toRequest(parser_->release());
  SimulatedDevice& device = listener_.device();
  if (request_.path == kControlPath) return serveControl();
  ++device.requests;
  device.log.add(request_);
  const OrderedFault fault = device.faults.take(request_);
  limitSending(stream_, device.link.bytesPerSecond);
  const auto delay = fault.delay + device.link.delay;
  if (delay.count() == 0) return perform(fault);
  stream_.expires_never();
  delay_.expires_after(delay);
  delay_.async_wait([self = shared_from_this(), fault](boost::system::error_code error) {
    if (!error) self->perform(fault);
  });
}

void ClientConnection::serveControl() {
  serving_ = true;
  const Reply reply = control(listener_.devices(), listener_.device(), request_);
  keepAlive_ = keepAlive_ && listener_.device().listening;
  send(reply);
}

void ClientConnection::perform(const OrderedFault& fault) {
  switch (fault.kind) {
    case FaultKind::None:
      return answerProperly();
    case FaultKind::Refuse:
      return close();
    case FaultKind::Hang:
      return hang();
    case FaultKind::Cut: {
      const std::string whole = wireText(answer(listener_.device(), request_), keepAlive_);
      return sendAndClose(whole.substr(0, whole.size() - whole.size() / 4));
    }
    case FaultKind::Garbage:
      return sendAndClose(std::string("\x00\xff\x7f not a reply \r\n\x01\x02", 20));
    case FaultKind::Empty:
      return send(Reply{});
    case FaultKind::Reply:
      return send(fault.reply);
    case FaultKind::Large:
      return send(largeReply(fault.bytes));
  }
}

void ClientConnection::answerProperly() {
  SimulatedDevice& device = listener_.device();
  Reply refusal;
  if (!device.login.admit(request_, refusal)) return send(refusal);
  if (device.replay) return replay(device.replay->next(request_));
  if (request_.method == "GET" && request_.path == kAlertStreamPath) {
    if (!device.alarms.attach(std::move(stream_))) close();
    return;
  }
  send(answer(device, request_));
}

void ClientConnection::replay(const RecordedExchange* said) {
  if (said == nullptr) return send(statusReply(Status::Refused, "notRecorded"));
  stream_.expires_never();
  delay_.expires_after(said->after);
  delay_.async_wait([self = shared_from_this(), said](boost::system::error_code error) {
    if (!error) self->play(*said);
  });
}

void ClientConnection::play(const RecordedExchange& said) {
  if (said.end == RecordedExchange::End::Closed) return close();
  if (said.end == RecordedExchange::End::Silent) return hang();
  if (said.isStream()) return ReplayedStream::play(listener_.io(), std::move(stream_), said);
  Reply reply;
  reply.status = said.status;
  reply.contentType = said.reply.type;
  reply.body = contentOf(said.reply);
  send(reply);
}

// Until the client gives up, or for the time of an idle connection.
void ClientConnection::hang() {
  stream_.expires_after(kIdle);
  stream_.async_read_some(buffer_.prepare(1024),
                          [self = shared_from_this()](boost::system::error_code error, auto) {
                            if (error) return self->close();
                            self->hang();
                          });
}

void ClientConnection::send(const Reply& reply) {
  sendBytes(wireText(reply, keepAlive_), !keepAlive_);
}

void ClientConnection::sendAndClose(std::string bytes) { sendBytes(std::move(bytes), true); }

void ClientConnection::sendBytes(std::string bytes, bool closeAfter) {
  writing_ = std::move(bytes);
  stream_.expires_after(kIdle);
  boost::asio::async_write(
      stream_, boost::asio::buffer(writing_),
      [self = shared_from_this(), closeAfter](boost::system::error_code error, auto) {
        self->serving_ = false;
        if (error || closeAfter) return self->close();
        self->readRequest();
      });
}

DeviceListener::DeviceListener(boost::asio::io_context& io, const Devices& devices,
                               SimulatedDevice& device, uint16_t port)
    : io_(io), devices_(devices), device_(device), acceptor_(io) {
  open(port);
  device_.port = acceptor_.local_endpoint().port();
  device_.onSwitch = [this] { followSwitch(); };
  device_.connections = [this] { return openConnections(); };
}

void DeviceListener::followSwitch() {
  if (device_.listening == acceptor_.is_open()) return;
  if (device_.listening) return open(device_.port);
  acceptor_.close();
  device_.alarms.closeStreams();
  for (const auto& connection : connections_)
    if (const auto open = connection.lock()) open->close();
}

void DeviceListener::open(uint16_t port) {
  const tcp::endpoint endpoint(boost::asio::ip::address_v4::loopback(), port);
  tcp::acceptor acceptor(acceptor_.get_executor());  // one that fails leaves no trace
  acceptor.open(endpoint.protocol());
  acceptor.set_option(tcp::acceptor::reuse_address(true));
  acceptor.bind(endpoint);
  acceptor.listen();
  acceptor_ = std::move(acceptor);
  accept();
}

void DeviceListener::accept() {
  acceptor_.async_accept([this](boost::system::error_code error, tcp::socket socket) {
    if (error == boost::asio::error::operation_aborted || !acceptor_.is_open()) return;
    if (!error) admit(std::move(socket));
    accept();
  });
}

std::size_t DeviceListener::openConnections() {
  std::erase_if(connections_, [](const auto& connection) { return connection.expired(); });
  return connections_.size();
}

// One connection too many is closed at once.
void DeviceListener::admit(tcp::socket socket) {
  if (openConnections() >= kConnections) return;
  boost::system::error_code ignored;
  socket.set_option(tcp::no_delay(true), ignored);
  const auto connection = std::make_shared<ClientConnection>(std::move(socket), *this);
  connections_.push_back(connection);
  connection->readRequest();
}

}  // namespace subdevice
