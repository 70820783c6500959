// See alert_stream.h.
#include "subdevice/alert_stream.h"

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/write.hpp>
#include <cstdio>
#include <utility>

namespace subdevice {

AlertStream::AlertStream(ClientStream stream, StreamFraming framing,
                         std::function<void(AlertStream*)> onEnd)
    : stream_(std::move(stream)), framing_(framing), onEnd_(std::move(onEnd)) {
  stream_.expires_never();
}

void AlertStream::start() {
  pending_ =
      "HTTP/1.1 200 OK\r\nContent-Type: multipart/mixed; boundary=boundary\r\n"
      "Connection: close\r\n";
  pending_ += framing_.chunked ? "Transfer-Encoding: chunked\r\n\r\n" : "\r\n";
  write();
  watchPeer();
}

bool AlertStream::push(std::string_view document, std::string_view contentType) {
  if (pending_.size() + document.size() > kQueueBytes) return false;
  std::string part = "--boundary\r\nContent-Type: ";
  part += contentType;
  part += "\r\n";
  if (framing_.lengths) part += "Content-Length: " + std::to_string(document.size()) + "\r\n";
  part += "\r\n";
  part += document;
  part += "\r\n";
  queue(part);
  return true;
}

void AlertStream::closeWhenSent() {
  ending_ = true;
  if (writing_.empty()) end();
}

void AlertStream::close() {
  onEnd_ = nullptr;
  stream_.close();
}

void AlertStream::queue(std::string_view bytes) {
  if (framing_.chunked) {
    std::array<char, 24> size{};
    std::snprintf(size.data(), size.size(), "%zx\r\n", bytes.size());
    pending_ += size.data();
  }
  pending_ += bytes;
  if (framing_.chunked) pending_ += "\r\n";
  if (writing_.empty()) write();
}

void AlertStream::write() {
  const std::size_t size = framing_.split == 0 ? pending_.size() : framing_.split;
  writing_ = pending_.substr(0, size);
  pending_.erase(0, writing_.size());
  boost::asio::async_write(stream_, boost::asio::buffer(writing_),
                           [self = shared_from_this()](boost::system::error_code error, auto) {
                             self->writing_.clear();
                             if (error) return self->end();
                             if (!self->pending_.empty()) return self->write();
                             if (self->ending_) self->end();
                           });
}

// A client says nothing on a stream; a read that ends means that it has gone.
void AlertStream::watchPeer() {
  stream_.async_read_some(boost::asio::buffer(&ignored_, 1),
                          [self = shared_from_this()](boost::system::error_code error, auto) {
                            if (error) return self->end();
                            self->watchPeer();
                          });
}

void AlertStream::end() {
  stream_.close();
  if (onEnd_) std::exchange(onEnd_, nullptr)(this);
}

}  // namespace subdevice
