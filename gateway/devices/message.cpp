#include "gateway/devices/message.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "text/ascii.h"
#include "text/bytes.h"
#include "text/number.h"

namespace qn {
namespace {

// Memory for a body is taken ahead up to this; a device that only announces more gets no more.
constexpr std::size_t kReserve = 1024 * 1024;

constexpr std::size_t kLongestBoundary = 70;  // that the multipart format allows
constexpr std::string_view kLineEnd = "\r\n";

std::string_view contentType(std::string_view body) {
  const std::string_view start = text::trimStart(body).substr(0, 1);
  if (start == "{" || start == "[") return "application/json";
  if (start == "<") return "application/xml";
  return "application/octet-stream";
}

bool announcesEmptyBody(std::string_view method) {
  return method == "PUT" || method == "POST" || method == "PATCH";
}

void addField(std::string& out, std::string_view name, std::string_view value) {
  text::appendAll(out, {name, ": ", value, kLineEnd});
}

std::string_view boundaryOf(std::string_view contentType) {
  constexpr std::string_view kName = "boundary=";
  const std::size_t name = contentType.find(kName);
  if (!text::startsWithNoCase(contentType, "multipart/") || name == contentType.npos) return {};
  const std::string_view value = contentType.substr(name + kName.size());
  const std::string_view boundary = value.starts_with('"')
                                        ? value.substr(1, value.find('"', 1) - 1)
                                        : value.substr(0, value.find_first_of("; \t"));
  return boundary.size() <= kLongestBoundary ? boundary : std::string_view();
}

}  // namespace

void writeRequestHead(std::string& out, const Device& device, const DeviceRequestHead& head,
                      std::string_view body) {
  out.clear();
  text::appendAll(out, {head.method, " ", head.target, device.requestLineEnd, head.fields});
  if (!head.authorization.empty()) addField(out, "Authorization", head.authorization);
  if (!body.empty()) addField(out, "Content-Type", contentType(body));
  if (!body.empty() || announcesEmptyBody(head.method)) {
    addField(out, "Content-Length", text::Decimal(body.size()).view());
  }
  out += kLineEnd;
}

boost::asio::mutable_buffer ReadBuffer::space(std::size_t capacity) {
  moveUnreadTo(data_.get());
  growTo(end_ == capacity_ ? std::max(capacity, 2 * capacity_) : capacity);
  return {data_.get() + end_, capacity_ - end_};
}

void ReadBuffer::clear(std::size_t kept) {
  begin_ = end_ = 0;
  if (capacity_ <= kept) return;
  data_.reset();
  capacity_ = 0;
}

void ReadBuffer::moveUnreadTo(char* target) {
  const std::string_view rest = unread();
  if (!rest.empty()) std::memmove(target, rest.data(), rest.size());
  begin_ = 0;
  end_ = rest.size();
}

void ReadBuffer::growTo(std::size_t capacity) {
  capacity = std::min(capacity, kLargest);
  if (capacity <= capacity_) return;
  auto larger = std::make_unique_for_overwrite<char[]>(capacity);
  moveUnreadTo(larger.get());
  data_ = std::move(larger);
  capacity_ = capacity;
}

ReplyParser::ReplyParser(std::optional<std::size_t> bodyLimit, bool headRequest) {
  header_limit(kHeadBytes);
  body_limit(bodyLimit ? boost::optional<std::uint64_t>(*bodyLimit) : boost::none);
  eager(true);
  skip(headRequest);
}

void ReplyParser::on_field_impl(boost::beast::http::field name, Text, Text value, Error&) {
  using boost::beast::http::field;
  if (headRead_) return;
  if (name == field::content_type) {
    document_ = text::containsNoCase(value, "json") || text::containsNoCase(value, "xml");
    boundary_ = boundaryOf(value);
  }
  if (name == field::www_authenticate && status_ == 401) {
    if (!challenge_.empty()) challenge_ += ", ";
    challenge_ += value;
  }
}

void ReplyParser::on_body_init_impl(const boost::optional<std::uint64_t>& length, Error&) {
  announced_ = length.value_or(0);
}

std::size_t ReplyParser::addBody(std::string_view bytes) {
  if (view_.empty() && filled_ == 0) {
    view_ = bytes;
  } else if (bytes.data() == copy_.data() + filled_) {  // read there
    filled_ += bytes.size();
  } else {
    keepBody();
    append(bytes);
  }
  return bytes.size();
}

void ReplyParser::append(std::string_view bytes) {
  copy_.resize(filled_);
  copy_.insert(copy_.end(), bytes.begin(), bytes.end());
  filled_ = copy_.size();
}

boost::asio::mutable_buffer ReplyParser::roomForBody() {
  if (!headRead_ || announced_ <= kLongBody || filled_ == 0 || filled_ >= announced_) return {};
  if (copy_.size() <= filled_) {
    copy_.resize(std::min(filled_ + kRoom, announced_), boost::container::default_init);
  }
  return {copy_.data() + filled_, copy_.size() - filled_};
}

void ReplyParser::keepBody() {
  if (view_.empty()) return;
  copy_.reserve(std::max(std::min(announced_, kReserve), view_.size()));
  append(std::exchange(view_, {}));
}

ReplyBytes ReplyParser::takeBody() {
  keepBody();
  copy_.resize(std::exchange(filled_, 0));
  return std::exchange(copy_, {});
}

void ReplyParser::dropBody() {
  view_ = {};
  copy_ = {};
  filled_ = 0;
}

}  // namespace qn
