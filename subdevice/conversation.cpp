// See conversation.h.
#include "subdevice/conversation.h"

#include <istream>
#include <optional>
#include <ostream>
#include <stdexcept>

#include "text/ascii.h"
#include "text/number.h"
#include "text/xml.h"

namespace subdevice {
namespace {

using std::chrono::milliseconds;

constexpr std::string_view kFirstLine = "# qn-subdevice conversation 1";
constexpr std::size_t kMostFillerBytes = 64 * 1024 * 1024;

void writeBody(std::ostream& file, const RecordedBody& body) {
  if (!body.type.empty()) file << "type " << body.type << '\n';
  if (body.bytes > 0) file << "bytes " << body.bytes << '\n';
  std::string_view rest = body.text;
  while (!body.text.empty()) {
    const auto end = rest.find('\n');
    file << "| " << rest.substr(0, end) << '\n';
    if (end == std::string_view::npos) break;
    rest.remove_prefix(end + 1);
  }
}

void writeReply(std::ostream& file, const RecordedExchange& exchange) {
  if (exchange.end == RecordedExchange::End::Silent)
    file << "< silent\n";
  else if (exchange.end == RecordedExchange::End::Closed)
    file << "< closed after " << exchange.after.count() << " ms\n";
  else
    file << "< " << exchange.status << " after " << exchange.after.count() << " ms\n";
  writeBody(file, exchange.reply);
  for (const auto& part : exchange.parts) {
    file << "+ " << part.at.count() << " ms\n";
    writeBody(file, part.body);
  }
  if (exchange.ended != RecordedExchange::kOpen)
    file << "end " << exchange.ended.count() << " ms\n";
}

// Reads line by line; what a line belongs to is what came before it.
class Reader {
 public:
  void take(std::string_view line) {
    if (line.starts_with("> ")) return beginExchange(line.substr(2));
    if (line.starts_with('|')) return addLine(line.substr(line.starts_with("| ") ? 2 : 1));
    const std::string_view bare = qn::text::trim(line, qn::text::kBlanks);
    if (bare.empty() || line.starts_with('#')) return;
    if (conversation_.empty())
      throw std::runtime_error("a conversation begins with \"> METHOD URL\"");
    if (bare.starts_with("< ")) return beginReply(bare.substr(2));
    if (bare.starts_with("+ ")) return beginPart(bare.substr(2));
    if (bare.starts_with("end ")) {
      current().ended = milliseconds(readMilliseconds(bare.substr(4)));
      return;
    }
    if (bare.starts_with("type ")) return void(body_->type = bare.substr(5));
    if (bare.starts_with("bytes "))
      return void(body_->bytes = readNumber(bare.substr(6), kMostFillerBytes));
    throw std::runtime_error("no line begins like this");
  }

  Conversation finish() {
    if (conversation_.empty()) throw std::runtime_error("there is no conversation in it");
    requireReply();
    return std::move(conversation_);
  }

 private:
  static constexpr std::size_t kLongestMs = 24 * 3600 * 1000;

  static std::size_t readNumber(std::string_view text, std::size_t most) {
    const auto number = qn::text::wholeNumber<std::size_t>(text);
    if (!number || *number > most)
      throw std::runtime_error("\"" + std::string(text) + "\" is no number up to " +
                               std::to_string(most));
    return *number;
  }

  static milliseconds readMilliseconds(std::string_view text) {
    if (!text.ends_with(" ms")) throw std::runtime_error("a time ends with \" ms\"");
    text.remove_suffix(3);
    return milliseconds(readNumber(text, kLongestMs));
  }

  RecordedExchange& current() { return conversation_.back(); }

  void requireReply() const {
    if (!conversation_.empty() && !replied_)
      throw std::runtime_error("the request before has no reply (\"< STATUS after N ms\")");
  }

  void beginExchange(std::string_view line) {
    requireReply();
    const auto blank = line.find(' ');
    const std::string_view target = line.substr(std::min(blank, line.size() - 1) + 1);
    if (blank == 0 || !target.starts_with('/'))
      throw std::runtime_error("a request is \"> METHOD /URL\"");
    conversation_.emplace_back();
    current().method = line.substr(0, blank);
    current().target = qn::text::trim(target, qn::text::kBlanks);
    begin(current().request);
    replied_ = false;
  }

  void beginReply(std::string_view line) {
    if (replied_) throw std::runtime_error("a second reply");
    const auto blank = line.find(" after ");
    const std::string_view what = line.substr(0, blank);
    if (blank != std::string_view::npos) current().after = readMilliseconds(line.substr(blank + 7));
    if (what == "silent")
      current().end = RecordedExchange::End::Silent;
    else if (what == "closed")
      current().end = RecordedExchange::End::Closed;
    else
      current().status = static_cast<unsigned>(readNumber(what, 599));
    if (current().status < 200) throw std::runtime_error("a status is a number from 200 to 599");
    begin(current().reply);
    replied_ = true;
  }

  void beginPart(std::string_view line) {
    if (!replied_ || !current().isStream())
      throw std::runtime_error("only a reply of a multipart type has parts");
    const milliseconds at = readMilliseconds(line);
    if (!current().parts.empty() && at < current().parts.back().at)
      throw std::runtime_error("a part before the one above it");
    current().parts.push_back({at, {}});
    begin(current().parts.back().body);
  }

  void begin(RecordedBody& body) {
    body_ = &body;
    hasLine_ = false;
  }

  void addLine(std::string_view line) {
    if (body_ == nullptr) throw std::runtime_error("a body before the first request");
    if (hasLine_) body_->text += '\n';
    body_->text += line;
    hasLine_ = true;
  }

  Conversation conversation_;
  RecordedBody* body_ = nullptr;
  bool hasLine_ = false;
  bool replied_ = true;
};

}  // namespace

RecordedBody bodyOf(std::string type, std::string_view content) {
  RecordedBody body{std::move(type), {}, 0};
  if (qn::text::isXmlText(content))
    body.text = content;
  else
    body.bytes = content.size();
  return body;
}

std::string contentOf(const RecordedBody& body) {
  return body.bytes > 0 ? std::string(body.bytes, 'x') : body.text;
}

void writeConversation(std::ostream& file, const Conversation& conversation) {
  file << kFirstLine << '\n';
  for (const auto& exchange : conversation) {
    file << '\n';
    if (!exchange.remark.empty()) file << "# " << exchange.remark << '\n';
    file << "> " << exchange.method << ' ' << exchange.target << '\n';
    writeBody(file, exchange.request);
    writeReply(file, exchange);
  }
}

Conversation readConversation(std::istream& file, const std::string& name) {
  Reader reader;
  std::size_t number = 0;
  std::size_t bytes = 0;
  try {
    for (std::string line; std::getline(file, line);) {
      ++number;
      if (number == 1 && line != kFirstLine)
        throw std::runtime_error("a conversation's first line is \"" + std::string(kFirstLine) +
                                 "\"");
      bytes += line.size() + 1;
      if (bytes > kConversationBytes) throw std::runtime_error("the conversation is too long");
      reader.take(line);
    }
    return reader.finish();
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(name + ":" + std::to_string(number) + ": " + error.what());
  }
}

}  // namespace subdevice
