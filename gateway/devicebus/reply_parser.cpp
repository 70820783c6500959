// See reply_parser.h.
#include "gateway/devicebus/reply_parser.h"

#include <algorithm>
#include <utility>

namespace qn::devicebus {
namespace {

// Memory for a body is taken ahead up to this; a device that only announces more gets no more.
constexpr std::uint64_t kReserve = 1024 * 1024;

bool containsIgnoringCase(std::string_view text, std::string_view lowerCase) {
  const auto same = [](char a, char b) {
    return (a >= 'A' && a <= 'Z' ? static_cast<char>(a - 'A' + 'a') : a) == b;
  };
  return std::search(text.begin(), text.end(), lowerCase.begin(), lowerCase.end(), same) !=
         text.end();
}

MediaKind mediaKind(std::string_view contentType) {
  if (containsIgnoringCase(contentType, "json")) return MediaKind::kJson;
  if (containsIgnoringCase(contentType, "xml")) return MediaKind::kXml;
  return MediaKind::kOther;
}

}  // namespace

ReplyParser::ReplyParser(std::size_t bodyLimit, bool headRequest) {
  header_limit(kHeadBytes);
  body_limit(std::uint64_t{bodyLimit});
  eager(true);
  skip(headRequest);
}

void ReplyParser::on_response_impl(int code, Text, int, Error&) { status_ = code; }

void ReplyParser::on_field_impl(boost::beast::http::field name, Text, Text value, Error&) {
  using boost::beast::http::field;
  if (headRead_) return;
  if (name == field::content_type) media_ = mediaKind({value.data(), value.size()});
  if (name == field::www_authenticate && status_ == 401) {
    if (!challenge_.empty()) challenge_ += ", ";
    challenge_.append(value.data(), value.size());
  }
}

void ReplyParser::on_body_init_impl(const boost::optional<std::uint64_t>& length, Error&) {
  expected_ = std::min(length.value_or(0), kReserve);
}

std::size_t ReplyParser::addBody(Text bytes) {
  if (view_.empty() && copy_.empty()) {
    view_ = {bytes.data(), bytes.size()};
  } else {
    keepBody();
    copy_.append(bytes.data(), bytes.size());
  }
  return bytes.size();
}

void ReplyParser::keepBody() {
  if (view_.empty()) return;
  copy_.reserve(std::max<std::size_t>(expected_, view_.size()));
  copy_.assign(view_);
  view_ = {};
}

std::string_view ReplyParser::body() const {
  if (!view_.empty()) return view_;
  return copy_;
}

std::string ReplyParser::takeBody() {
  keepBody();
  return std::move(copy_);
}

}  // namespace qn::devicebus
