// See request_reader.h.
#include "gateway/http/request_reader.h"

#include <boost/beast/http/basic_parser.hpp>
#include <boost/beast/http/error.hpp>
#include <cstdint>
#include <limits>

#include "gateway/http/request_id.h"
#include "platform/http_service.h"
#include "text/ascii.h"

namespace qn {
namespace http = boost::beast::http;
using boost::beast::string_view;
using boost::system::error_code;

namespace {

int methodCode(http::verb verb) {
  switch (verb) {
    case http::verb::get:
      return QNHttpService::HTTP_GET;
    case http::verb::put:
      return QNHttpService::HTTP_PUT;
    case http::verb::post:
      return QNHttpService::HTTP_POST;
    case http::verb::delete_:
      return QNHttpService::HTTP_DELETE;
    case http::verb::head:
      return QNHttpService::HTTP_HEAD;
    case http::verb::options:
      return QNHttpService::HTTP_OPTIONS;
    case http::verb::patch:
      return QNHttpService::HTTP_PATCH;
    default:
      return kOtherMethod;
  }
}

// Path and query of an absolute-form target; empty when it has none that we serve.
std::string_view originForm(std::string_view target) {
  const std::size_t authority = target.find("://");
  if (authority == std::string_view::npos) return {};
  const std::string_view scheme = target.substr(0, authority);
  if (!text::equalNoCase(scheme, "http") && !text::equalNoCase(scheme, "https")) return {};
  const std::size_t path = target.find_first_of("/?#", authority + 3);
  if (path == std::string_view::npos) return "/";
  return target[path] == '/' ? target.substr(path) : std::string_view();
}

// A folded line: the parser joined it in a buffer of its own, or the value stands on a later line.
bool isFolded(string_view name, string_view value, std::string_view head) {
  if (value.data() < head.data() || value.data() > head.data() + head.size()) return true;
  for (const char* c = name.data() + name.size(); c != value.data(); ++c) {
    if (*c == '\n') return true;
  }
  return false;
}

}  // namespace

class RequestParser final : public http::basic_parser<true> {
 public:
  RequestParser(std::string_view bytes, RequestHead& head) : bytes_(bytes), head_(head) {}

  std::string_view body() const { return whole_.data() != nullptr ? whole_ : gathered_; }
  void dropBody() {
    whole_ = {};
    std::string().swap(gathered_);
  }

 private:
  void on_request_impl(http::verb verb, string_view, string_view target, int version,
                       error_code& ec) override {
    head_.method = methodCode(verb);
    head_.http10 = version == 10;
    head_.target = target;
    if (head_.method == kOtherMethod || target.front() == '/') return;
    if (head_.method == QNHttpService::HTTP_OPTIONS && target == "*") return;
    head_.target = originForm(target);
    if (head_.target.empty()) ec = http::error::bad_target;
  }

  void on_field_impl(http::field field, string_view name, string_view value,
                     error_code& ec) override {
    if (headDone_) return;  // trailers mean nothing to us
    if (isFolded(name, value, bytes_)) {
      ec = http::error::bad_obs_fold;
    } else if (field == http::field::host) {
      ++hosts_;
    } else if (field == http::field::transfer_encoding) {
      if (head_.http10 || !text::equalNoCase(value, "chunked"))
        ec = http::error::bad_transfer_encoding;
    } else if (field == http::field::expect) {
      head_.expectsContinue = !head_.http10 && text::equalNoCase(value, "100-continue");
    } else if (field == http::field::unknown && namesRequest(name)) {
      head_.namesRequest = true;
    }
  }

  void on_header_impl(error_code& ec) override {
    headDone_ = true;
    if (hosts_ > 1 || (hosts_ == 0 && !head_.http10)) ec = http::error::bad_field;
  }

  void on_body_init_impl(const boost::optional<std::uint64_t>& length, error_code&) override {
    length_ = length.value_or(std::numeric_limits<std::uint64_t>::max());
  }

  // A body that came in one piece is not copied.
  std::size_t on_body_impl(string_view piece, error_code&) override {
    if (piece.size() == length_) {
      whole_ = piece;
    } else {
      gathered_.append(piece);
    }
    return piece.size();
  }

  void on_chunk_header_impl(std::uint64_t, string_view, error_code&) override {}

  std::size_t on_chunk_body_impl(std::uint64_t, string_view piece, error_code&) override {
    gathered_.append(piece);
    return piece.size();
  }

  void on_finish_impl(error_code&) override {}
  void on_response_impl(int, string_view, int, error_code&) override {}

  const std::string_view bytes_;
  RequestHead& head_;
  int hosts_ = 0;
  bool headDone_ = false;
  std::uint64_t length_ = 0;
  std::string_view whole_;
  std::string gathered_;
};

RequestReader::RequestReader(std::size_t headLimit, std::size_t bodyLimit)
    : headLimit_(headLimit), bodyLimit_(bodyLimit) {}

RequestReader::~RequestReader() = default;

std::size_t RequestReader::blankLines(std::string_view bytes) {
  std::size_t length = 0;
  while (bytes.substr(length, 2) == "\r\n") length += 2;
  return length;
}

void RequestReader::reset() {
  parser_.reset();
  partial_ = false;
  scanned_ = 0;
}

// Nearly every head comes whole, so the parser tries first; only when it runs out of bytes is the
// end of the head searched for, and the parser starts again when that is there.
ReadResult RequestReader::readHead(std::string_view bytes) {
  if (bytes == "\r") return ReadResult::Partial;  // an empty line on its way
  ReadResult result;
  if (partial_) {
    result = waitForHead(bytes);
    return result == ReadResult::Complete ? parseWholeHead(bytes) : result;
  }
  result = parseHead(bytes);
  if (result != ReadResult::Partial) return result;
  partial_ = true;
  parser_.reset();
  result = waitForHead(bytes);
  return result == ReadResult::Complete ? ReadResult::Malformed : result;
}

// The end of the head is there, so a parser that asks for more has been led astray.
ReadResult RequestReader::parseWholeHead(std::string_view bytes) {
  const ReadResult result = parseHead(bytes);
  return result == ReadResult::Partial ? ReadResult::Malformed : result;
}

ReadResult RequestReader::waitForHead(std::string_view bytes) {
  for (;;) {
    const std::size_t end = bytes.find('\n', scanned_);
    if (end == std::string_view::npos) break;
    if (end == 0 || bytes[end - 1] != '\r') return ReadResult::Malformed;
    scanned_ = end + 1;
    if (end >= 3 && bytes.substr(end - 3, 4) == "\r\n\r\n") return ReadResult::Complete;
  }
  return bytes.size() >= headLimit_ ? ReadResult::HeadTooLarge : ReadResult::Partial;
}

ReadResult RequestReader::parseHead(std::string_view bytes) {
  head_ = RequestHead();
  parser_ = std::make_unique<RequestParser>(bytes, head_);
  parser_->header_limit(static_cast<std::uint32_t>(headLimit_));
  parser_->body_limit(bodyLimit_);
  error_code ec;
  headLength_ = parser_->put(boost::asio::buffer(bytes.data(), bytes.size()), ec);
  if (ec == http::error::need_more) return ReadResult::Partial;
  if (ec == http::error::header_limit) return ReadResult::HeadTooLarge;
  if (ec == http::error::body_limit) return ReadResult::BodyTooLarge;
  if (ec) return ReadResult::Malformed;
  if (headLength_ > headLimit_) return ReadResult::HeadTooLarge;
  head_.keepAlive = parser_->keep_alive();
  const std::size_t fields = bytes.find('\n') + 1;
  head_.fields = bytes.substr(fields, headLength_ - 2 - fields);
  parser_->eager(true);
  return ReadResult::Complete;
}

ReadResult RequestReader::readBody(std::string_view bytes, std::size_t& used) {
  used = 0;
  if (parser_->is_done()) return ReadResult::Complete;
  if (bytes.empty()) return ReadResult::Partial;
  error_code ec;
  used = parser_->put(boost::asio::buffer(bytes.data(), bytes.size()), ec);
  if (ec == http::error::body_limit) return ReadResult::BodyTooLarge;
  if (ec && ec != http::error::need_more) return ReadResult::Malformed;
  return parser_->is_done() ? ReadResult::Complete : ReadResult::Partial;
}

std::string_view RequestReader::body() const { return parser_->body(); }

void RequestReader::dropBody() { parser_->dropBody(); }

}  // namespace qn
