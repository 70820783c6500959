// See connection.h.
#include "subdevice/connection.h"

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/status.hpp>
#include <utility>

#include "subdevice/control.h"
#include "subdevice/device.h"
#include "subdevice/listener.h"
#include "subdevice/routes.h"

namespace subdevice {
namespace {

namespace http = boost::beast::http;

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

Connection::Connection(boost::asio::ip::tcp::socket socket, Listener& listener)
    : stream_(std::move(socket)), listener_(listener), delay_(stream_.get_executor()) {}

void Connection::readRequest() {
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

void Connection::close() {
  if (serving_) return;  // ends after its answer
  delay_.cancel();
  stream_.close();
}

void Connection::serve() {
  keepAlive_ = parser_->get().keep_alive();
  request_ = toRequest(parser_->release());
  Device& device = listener_.device();
  if (request_.path == kControlPath) return serveControl();
  ++device.requests;
  device.log.add(request_);
  const Fault fault = device.faults.take(request_);
  if (fault.delay.count() == 0) return perform(fault);
  stream_.expires_never();
  delay_.expires_after(fault.delay);
  delay_.async_wait([self = shared_from_this(), fault](boost::system::error_code error) {
    if (!error) self->perform(fault);
  });
}

void Connection::serveControl() {
  serving_ = true;
  const Reply reply = control(listener_.devices(), listener_.device(), request_);
  keepAlive_ = keepAlive_ && listener_.device().listening;
  send(reply);
}

void Connection::perform(const Fault& fault) {
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

void Connection::answerProperly() {
  Device& device = listener_.device();
  Reply refusal;
  if (!device.login.admit(request_, refusal)) return send(refusal);
  if (request_.method == "GET" && request_.path == kAlertStreamPath) {
    if (!device.alarms.attach(std::move(stream_))) close();
    return;
  }
  send(answer(device, request_));
}

// Until the client gives up, or for the time of an idle connection.
void Connection::hang() {
  stream_.expires_after(kIdle);
  stream_.async_read_some(buffer_.prepare(1024),
                          [self = shared_from_this()](boost::system::error_code error, auto) {
                            if (error) return self->close();
                            self->hang();
                          });
}

void Connection::send(const Reply& reply) { sendBytes(wireText(reply, keepAlive_), !keepAlive_); }

void Connection::sendAndClose(std::string bytes) { sendBytes(std::move(bytes), true); }

void Connection::sendBytes(std::string bytes, bool closeAfter) {
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

}  // namespace subdevice
