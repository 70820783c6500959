#include "gateway/alarmbus/stream_response.h"

#include <boost/asio/error.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/field.hpp>
#include <utility>

namespace qn {
namespace {

constexpr std::uint32_t kHeadLimit = 16 * 1024;

}  // namespace

StreamResponse::StreamResponse(std::function<bool()> begin, BodySink body)
    : begin_(std::move(begin)), body_(std::move(body)) {
  eager(true);
  header_limit(kHeadLimit);
  body_limit(boost::none);  // endless; its parts are bounded by their reader
}

std::string StreamResponse::boundary() const {
  if (!boost::beast::iequals(contentType_.substr(0, 10), "multipart/")) return {};
  const auto name = contentType_.find("boundary=");
  if (name == std::string::npos) return {};
  auto value = contentType_.substr(name + 9);
  if (value.starts_with('"')) return value.substr(1, value.find('"', 1) - 1);
  return value.substr(0, value.find_first_of("; \t"));
}

void StreamResponse::on_response_impl(int code, Text, int, Error&) { status_ = code; }

void StreamResponse::on_field_impl(boost::beast::http::field name, Text, Text value, Error&) {
  if (name == boost::beast::http::field::content_type) {
    contentType_ = std::string(value);
  } else if (name == boost::beast::http::field::www_authenticate) {
    if (!challenge_.empty()) challenge_ += ", ";
    challenge_.append(value.data(), value.size());
  }
}

void StreamResponse::on_header_impl(Error& error) {
  if (!begin_()) error = boost::asio::error::operation_aborted;
}

std::size_t StreamResponse::on_body_impl(Text body, Error& error) {
  if (!body_(std::string_view(body.data(), body.size()))) {
    error = boost::beast::http::error::bad_value;
  }
  return body.size();
}

std::size_t StreamResponse::on_chunk_body_impl(std::uint64_t, Text body, Error& error) {
  return on_body_impl(body, error);
}

}  // namespace qn
