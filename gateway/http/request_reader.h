// Reads one request, head then body, from the bytes of a connection, without copying the head.
// Refuses what servers and proxies could understand differently: folded lines, bare LF, control
// characters, a length beside chunks, other transfer codings, a missing or second Host.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace qn {

class RequestParser;

constexpr int kOtherMethod = -1;

// A head; the views are into the bytes it was read from.
struct RequestHead {
  int method = kOtherMethod;  // an HttpMethod, or kOtherMethod
  std::string_view target;    // path and query, as the client sent them
  std::string_view fields;    // the header lines, each with its CRLF
  bool keepAlive = false;
  bool http10 = false;
  bool expectsContinue = false;
  bool namesRequest = false;  // a line may hold the request's id
};

enum class ReadResult { Partial, Complete, Malformed, HeadTooLarge, BodyTooLarge };

class RequestReader {
 public:
  RequestReader(std::size_t headLimit, std::size_t bodyLimit);
  ~RequestReader();
  RequestReader(const RequestReader&) = delete;
  RequestReader& operator=(const RequestReader&) = delete;

  // For the next request, of which nothing has been read.
  void setLimits(std::size_t headLimit, std::size_t bodyLimit) {
    headLimit_ = headLimit;
    bodyLimit_ = bodyLimit;
  }
  std::size_t headLimit() const { return headLimit_; }

  // Empty lines before a request are skipped: their length.
  static std::size_t blankLines(std::string_view bytes);

  // Reads the head at the start of `bytes`. Partial: call it again with the same bytes and more.
  ReadResult readHead(std::string_view bytes);
  const RequestHead& head() const { return head_; }  // after Complete, while the bytes stay
  std::size_t headLength() const { return headLength_; }

  // Reads on in a body; `used` bytes were taken.
  ReadResult readBody(std::string_view bytes, std::size_t& used);
  // The whole body; may be a view of the bytes of the last readBody().
  std::string_view body() const;
  // Forgets what has come of it.
  void dropBody();

  // Makes ready for the next request.
  void reset();

 private:
  ReadResult waitForHead(std::string_view bytes);
  ReadResult parseHead(std::string_view bytes);
  ReadResult parseWholeHead(std::string_view bytes);

  std::size_t headLimit_;
  std::size_t bodyLimit_;
  std::unique_ptr<RequestParser> parser_;  // null between requests
  RequestHead head_;
  std::size_t headLength_ = 0;
  std::size_t scanned_ = 0;  // of a partial head: where the search for its end goes on
  bool partial_ = false;
};

}  // namespace qn
