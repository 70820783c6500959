// What goes over a connection to a device: the head of a request out, the bytes of a reply in and
// their meaning. Used by the bus's connections and the alarm feeds.
#pragma once

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/basic_parser.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "gateway/devices/device.h"
#include "gateway/net/reply_in_hand.h"

namespace qn {

// A request but for its body.
struct DeviceRequestHead {
  std::string_view method;
  std::string_view target;         // path and query
  std::string_view fields;         // lines with their ends, or none
  std::string_view authorization;  // or none
};

// Replaces `out` by the head of a request with this body.
void writeRequestHead(std::string& out, const Device& device, const DeviceRequestHead& head,
                      std::string_view body = {});

// The bytes that a connection has read and its parser has not consumed. What is consumed is moved
// out of the way only when space is asked for, so views into it hold until then.
class ReadBuffer {
 public:
  static constexpr std::size_t kUsual = 8 * 1024;
  static constexpr std::size_t kLargest = 64 * 1024;

  std::string_view unread() const { return {data_.get() + begin_, end_ - begin_}; }
  bool empty() const { return begin_ == end_; }
  void consume(std::size_t count) { begin_ += count; }
  void commit(std::size_t count) { end_ += count; }

  // Space to read into, in a buffer of at least so many bytes, at most kLargest; empty when
  // kLargest bytes are unread.
  boost::asio::mutable_buffer space(std::size_t capacity = kUsual);
  // Forgets everything and gives back what exceeds `kept` bytes.
  void clear(std::size_t kept = kUsual);

 private:
  void moveUnreadTo(char* target);
  void growTo(std::size_t capacity);

  std::unique_ptr<char[]> data_;
  std::size_t capacity_ = 0;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

// Reads one reply: keeps views into the connection's buffer and copies only a body that does not
// lie there whole. The body of an endless reply is taken piece by piece with dropBody().
class ReplyParser final : public boost::beast::http::basic_parser<false> {
 public:
  static constexpr std::uint32_t kHeadBytes = 16 * 1024;

  // `bodyLimit` bounds the body, none when it is endless; `headRequest`: the reply to HEAD, which
  // has none.
  explicit ReplyParser(std::optional<std::size_t> bodyLimit, bool headRequest = false);

  int status() const { return status_; }
  bool isDocument() const { return document_; }  // JSON or XML, says its Content-Type
  // Of a multipart Content-Type; empty for any other, and when it is longer than the format allows.
  const std::string& boundary() const { return boundary_; }
  // The WWW-Authenticate lines of a 401, joined by ", ".
  const std::string& challenge() const { return challenge_; }
  // What the head says about the body's length; 0 when it says nothing.
  std::size_t announcedBytes() const { return announced_; }
  bool hasLongBody() const { return filled_ > kLongBody; }
  // Where the next bytes of a long body of announced length may be read to before they are given to
  // put(), so that they need not be copied; empty for any other. Good until put() or takeBody().
  boost::asio::mutable_buffer roomForBody();

  // Good while the parser and the bytes given to put() last. Never null.
  std::string_view body() const {
    if (filled_ != 0) return {copy_.data(), filled_};
    return view_.empty() ? std::string_view("") : view_;
  }
  // The body without a copy; body() is not good any more.
  ReplyBytes takeBody();
  // The bytes given to put() are about to go: keeps what body() needs of them.
  void keepBody();
  // What has come of the body is done with.
  void dropBody();

 private:
  static constexpr std::size_t kLongBody = 32 * 1024;
  static constexpr std::size_t kRoom = 128 * 1024;
  using Text = boost::beast::string_view;
  using Error = boost::beast::error_code;

  void on_request_impl(boost::beast::http::verb, Text, Text, int, Error&) override {}
  void on_response_impl(int code, Text, int, Error&) override { status_ = code; }
  void on_field_impl(boost::beast::http::field name, Text nameText, Text value, Error&) override;
  void on_header_impl(Error&) override { headRead_ = true; }
  void on_body_init_impl(const boost::optional<std::uint64_t>& length, Error&) override;
  std::size_t on_body_impl(Text bytes, Error&) override { return addBody(bytes); }
  void on_chunk_header_impl(std::uint64_t, Text, Error&) override {}
  std::size_t on_chunk_body_impl(std::uint64_t, Text bytes, Error&) override {
    return addBody(bytes);
  }
  void on_finish_impl(Error&) override {}

  std::size_t addBody(std::string_view bytes);
  void append(std::string_view bytes);

  int status_ = 0;
  bool document_ = false;
  bool headRead_ = false;  // fields that follow are trailers
  std::string boundary_;
  std::string challenge_;
  std::size_t announced_ = 0;
  std::string_view view_;   // the body so far, when it is one piece of the bytes given
  ReplyBytes copy_;         // the body so far otherwise, and room behind it
  std::size_t filled_ = 0;  // of copy_
};

}  // namespace qn
