// Reads one reply of a device: keeps views into the connection's buffer and copies only a body that
// does not lie there whole. Used by Connection, one parser for each reply.
#pragma once

#include <boost/beast/http/basic_parser.hpp>
#include <cstdint>
#include <string>
#include <string_view>

namespace qn::devicebus {

enum class MediaKind { kJson, kXml, kOther };

class ReplyParser final : public boost::beast::http::basic_parser<false> {
 public:
  static constexpr std::uint32_t kHeadBytes = 16 * 1024;

  // `bodyLimit` bounds the body; `headRequest`: the reply to HEAD, which has none.
  ReplyParser(std::size_t bodyLimit, bool headRequest);

  int status() const { return status_; }
  MediaKind media() const { return media_; }
  // The WWW-Authenticate lines of a 401, joined by ", ".
  const std::string& challenge() const { return challenge_; }
  bool hasLongBody() const { return copy_.size() > kLongBody; }

  // Good while the parser and the bytes given to put() last. Never null.
  std::string_view body() const;
  // The body as a string of its own; body() is not good any more.
  std::string takeBody();
  // The bytes given to put() are about to go: keeps what body() needs of them.
  void keepBody();

 private:
  static constexpr std::size_t kLongBody = 32 * 1024;
  using Text = boost::beast::string_view;
  using Error = boost::beast::error_code;

  void on_request_impl(boost::beast::http::verb, Text, Text, int, Error&) override {}
  void on_response_impl(int code, Text reason, int version, Error&) override;
  void on_field_impl(boost::beast::http::field name, Text nameText, Text value, Error&) override;
  void on_header_impl(Error&) override { headRead_ = true; }
  void on_body_init_impl(const boost::optional<std::uint64_t>& length, Error&) override;
  std::size_t on_body_impl(Text bytes, Error&) override { return addBody(bytes); }
  void on_chunk_header_impl(std::uint64_t, Text, Error&) override {}
  std::size_t on_chunk_body_impl(std::uint64_t, Text bytes, Error&) override {
    return addBody(bytes);
  }
  void on_finish_impl(Error&) override {}

  std::size_t addBody(Text bytes);

  int status_ = 0;
  MediaKind media_ = MediaKind::kOther;
  bool headRead_ = false;  // fields that follow are trailers
  std::string challenge_;
  std::uint64_t expected_ = 0;  // body bytes still announced, at most kReserve
  std::string_view view_;       // the body so far, when it is one piece of the bytes given
  std::string copy_;            // the body so far otherwise
};

}  // namespace qn::devicebus
