// Reads the HTTP answer that carries a device's alert stream. Used by the alarm bus.
#pragma once

#include <boost/beast/http/basic_parser.hpp>
#include <functional>
#include <string>
#include <string_view>

namespace qn {

class StreamResponse final : public boost::beast::http::basic_parser<false> {
 public:
  using BodySink = std::function<bool(std::string_view)>;  // false ends the reading

  // `begin` runs once, when the head is complete.
  StreamResponse(std::function<bool()> begin, BodySink body);

  int status() const { return status_; }
  // The boundary of a multipart Content-Type; empty for any other.
  std::string boundary() const;
  // The WWW-Authenticate lines, joined by ", ".
  const std::string& challenge() const { return challenge_; }

 private:
  using Error = boost::beast::error_code;
  using Text = boost::beast::string_view;

  void on_request_impl(boost::beast::http::verb, Text, Text, int, Error&) override {}
  void on_response_impl(int code, Text reason, int version, Error& error) override;
  void on_field_impl(boost::beast::http::field name, Text text, Text value, Error& error) override;
  void on_header_impl(Error& error) override;
  void on_body_init_impl(boost::optional<std::uint64_t> const&, Error&) override {}
  std::size_t on_body_impl(Text body, Error& error) override;
  void on_chunk_header_impl(std::uint64_t, Text, Error&) override {}
  std::size_t on_chunk_body_impl(std::uint64_t remaining, Text body, Error& error) override;
  void on_finish_impl(Error&) override {}

  const std::function<bool()> begin_;
  const BodySink body_;
  int status_ = 0;
  std::string contentType_;
  std::string challenge_;
};

}  // namespace qn
