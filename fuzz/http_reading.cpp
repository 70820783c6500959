// The reader of HTTP requests, on bytes in pieces as a connection gets them. The first byte chooses
// the size of the pieces.

#include "fuzz/require.h"
#include "gateway/http/request_reader.h"

namespace {

constexpr std::size_t kHeadLimit = 1024;
constexpr std::size_t kBodyLimit = 4096;

// Reads one request that starts at `at`; false when there is no further one.
bool readRequest(std::string_view input, std::size_t piece, std::size_t& at) {
  at += qn::RequestReader::blankLines(input.substr(at));
  qn::RequestReader reader(kHeadLimit, kBodyLimit);
  std::size_t have = piece;
  auto result = qn::ReadResult::Partial;
  for (; result == qn::ReadResult::Partial; have += piece) {
    const std::string_view bytes = input.substr(at, have);
    if (bytes.empty()) return false;
    result = reader.readHead(bytes);
    if (bytes.size() < have) break;
  }
  if (result != qn::ReadResult::Complete) return false;
  const qn::RequestHead head = reader.head();
  Require(reader.headLength() <= kHeadLimit && at + reader.headLength() <= input.size());
  Require(head.method == qn::kOtherMethod || !head.target.empty());
  Require(head.fields.empty() || head.fields.ends_with("\r\n"));
  at += reader.headLength();
  for (;;) {
    std::size_t used = 0;
    const std::string_view bytes = input.substr(at, have);
    result = reader.readBody(bytes, used);
    Require(used <= bytes.size());
    at += used;
    if (result != qn::ReadResult::Partial) break;
    if (at + bytes.size() - used >= input.size()) return false;
    if (used == 0) have += piece;
  }
  if (result != qn::ReadResult::Complete) return false;
  Require(reader.body().size() <= kBodyLimit);
  return true;
}

}  // namespace

void fuzz(std::string_view input) {
  if (input.size() < 2) return;
  const std::size_t piece = static_cast<unsigned char>(input[0]) + std::size_t{1};
  input.remove_prefix(1);
  std::size_t at = 0;
  while (at < input.size() && readRequest(input, piece, at)) {
  }
}
