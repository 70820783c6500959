// See secrets.h.
#include "gateway/log/secrets.h"

#include <algorithm>
#include <array>

#include "gateway/log/line.h"
#include "text/ascii.h"

namespace qn {
namespace {

// Anywhere in a name, whatever stands around them.
constexpr std::array<std::string_view, 8> kSecretParts = {"password", "passwd",     "passphrase",
                                                          "secret",   "credential", "privatekey",
                                                          "faceurl",  "authoriz"};
// As one of the words that a name is made of.
constexpr std::array<std::string_view, 6> kSecretWords = {"pin",   "pins",   "pwd",
                                                          "token", "tokens", "passcode"};
// As the last of them: a key frame is no key.
constexpr std::array<std::string_view, 3> kSecretLastWords = {"key", "keys", "pass"};

constexpr bool isUpper(char c) { return c >= 'A' && c <= 'Z'; }
constexpr bool isLetter(char c) { return isUpper(c) || (c >= 'a' && c <= 'z'); }
constexpr bool isNameChar(char c) {
  return isLetter(c) || text::isDigit(c) || c == '_' || c == '-' || c == '.';
}

// Takes the first word off a name: "apiKey", "API_Key" and "PINCode" have two each.
std::string_view takeWord(std::string_view& name) {
  std::size_t begin = 0;
  while (begin < name.size() && !isLetter(name[begin])) ++begin;
  std::size_t end = begin;
  const auto continues = [&] {
    if (end == begin) return isLetter(name[end]);
    if (!isLetter(name[end])) return false;
    const bool capital = isUpper(name[end]);
    const bool afterCapital = isUpper(name[end - 1]);
    const bool beforeSmall =
        end + 1 < name.size() && isLetter(name[end + 1]) && !isUpper(name[end + 1]);
    return capital ? afterCapital && !beforeSmall : !afterCapital || end - begin == 1;
  };
  while (end < name.size() && continues()) ++end;
  const std::string_view word = name.substr(begin, end - begin);
  name.remove_prefix(end);
  return word;
}

template <std::size_t N>
bool isOneOf(std::string_view word, const std::array<std::string_view, N>& words) {
  return std::ranges::any_of(words, [&](std::string_view w) { return text::equalNoCase(w, word); });
}

bool containsNoCase(std::string_view name, std::string_view part) {
  const auto same = [](char a, char b) { return text::lower(a) == b; };
  return std::search(name.begin(), name.end(), part.begin(), part.end(), same) != name.end();
}

// Copies a text and leaves the values of secrets out.
class Redactor {
 public:
  explicit Redactor(std::string_view text) : rest_(text) { out_.reserve(text.size()); }

  std::string redacted() {
    while (!rest_.empty()) {
      const std::size_t size = nameSize();
      if (size == 0) {
        copy(1);
      } else {
        takeName(size);
      }
    }
    return std::move(out_);
  }

 private:
  std::size_t nameSize() const {
    if (!isLetter(rest_[0]) && rest_[0] != '_') return 0;
    return std::min(std::size_t(std::ranges::find_if_not(rest_, isNameChar) - rest_.begin()),
                    rest_.size());
  }
  void copy(std::size_t count) {
    out_.append(rest_, 0, count);
    rest_.remove_prefix(std::min(count, rest_.size()));
  }
  void copyBlanks() { copy(rest_.size() - text::trimStart(rest_).size()); }
  void hide(std::size_t count) {
    out_ += kHiddenValue;
    rest_.remove_prefix(std::min(count, rest_.size()));
  }
  // How many backslashes stand before a quote that the rest begins with; npos: no quote.
  std::size_t quoteDepth() const {
    const std::size_t depth = std::min(rest_.find_first_not_of('\\'), rest_.size());
    return depth < rest_.size() && rest_[depth] == '"' ? depth : rest_.npos;
  }

  void takeName(std::size_t size) {
    const std::string_view name = rest_.substr(0, size);
    const bool element = !out_.empty() && (out_.back() == '<' || out_.back() == ':') && isInTag();
    copy(size);
    if (!isSecretName(name)) return;
    if (element) return takeElement(name);
    const std::size_t depth = quoteDepth();
    const bool quoted = depth != rest_.npos;
    if (quoted) copy(depth + 1);
    copyBlanks();
    if (rest_.empty() || (rest_[0] != ':' && rest_[0] != '=')) return;
    const bool header = rest_[0] == ':' && !quoted;
    if (header && !containsNoCase(name, "authoriz"))
      return;  // prose, such as "users.password: ..."
    copy(1);
    copyBlanks();
    hideValue(header);
  }
  // Whether the last "<" or its namespace prefix stands directly before.
  bool isInTag() const {
    const std::size_t open = out_.find_last_of('<');
    return open != out_.npos && std::all_of(out_.begin() + std::ptrdiff_t(open) + 1, out_.end(),
                                            [](char c) { return isNameChar(c) || c == ':'; });
  }

  // Behind the name in an opening tag. All that stands in the element goes, elements included.
  void takeElement(std::string_view name) {
    const std::size_t tag = std::min(rest_.find('>'), rest_.size());
    const bool empty = tag > 0 && rest_[tag - 1] == '/';
    const bool bare = tag == (empty ? 1 : 0);  // without attributes
    bare ? copy(tag) : hide(tag);
    if (empty || rest_.empty()) return;
    copy(1);
    const std::string closing = std::string(name) + '>';
    std::size_t end = rest_.find(closing);
    end = end == rest_.npos ? rest_.size() : std::min(rest_.rfind("</", end), end);
    hide(end);
  }

  void hideValue(bool wholeLine) {
    const std::size_t depth = quoteDepth();
    if (wholeLine) return hide(rest_.find_first_of("\r\n"));
    if (depth != rest_.npos) return hideString(depth);
    if (rest_.starts_with('\'')) {
      copy(1);
      return hide(rest_.find('\''));
    }
    if (!rest_.empty() && (rest_[0] == '{' || rest_[0] == '[')) return hide(bracketedSize());
    hide(rest_.find_first_of(" \t\r\n,;&<>\"'()[]{}\\"));
  }
  void hideString(std::size_t depth) {
    copy(depth + 1);
    hide(stringSize(rest_, depth));
  }

  // Up to the quote that ends a string whose first one has `depth` backslashes.
  static std::size_t stringSize(std::string_view text, std::size_t depth) {
    std::size_t backslashes = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
      if (text[i] == '\\') {
        ++backslashes;
        continue;
      }
      const bool ends = depth == 0 ? backslashes % 2 == 0 : backslashes <= depth;
      if (text[i] == '"' && ends) return i - std::min(backslashes, depth);
      backslashes = 0;
    }
    return text.size();
  }

  // Of the object or array that the rest begins with; strings in it may hold brackets.
  std::size_t bracketedSize() const {
    std::size_t nesting = 0;
    for (std::size_t i = 0; i < rest_.size(); ++i) {
      const char c = rest_[i];
      if (c == '"') i += stringSize(rest_.substr(i + 1), i > 0 && rest_[i - 1] == '\\' ? 1 : 0) + 1;
      if (c == '{' || c == '[') ++nesting;
      if ((c == '}' || c == ']') && --nesting == 0) return i + 1;
    }
    return rest_.size();
  }

  std::string_view rest_;
  std::string out_;
};

// Where a document begins that is more than a bracket in prose; npos: nowhere.
std::size_t documentStart(std::string_view text) {
  for (std::size_t i = text.find_first_of("{[<"); i != text.npos;
       i = text.find_first_of("{[<", i + 1)) {
    const std::string_view inside = text::trimStart(text.substr(i + 1));
    if (inside.empty()) continue;
    const bool xml = text[i] == '<' && (isLetter(inside[0]) || inside[0] == '?');
    const bool json = text[i] != '<' && (inside[0] == '"' || inside[0] == '{');
    if (xml || json) return i;
  }
  return text.npos;
}

}  // namespace

bool isSecretName(std::string_view name) {
  const auto isPart = [&](std::string_view part) { return containsNoCase(name, part); };
  if (std::ranges::any_of(kSecretParts, isPart)) return true;
  std::string_view last;
  while (!name.empty()) {
    const std::string_view word = takeWord(name);
    if (isOneOf(word, kSecretWords)) return true;
    if (!word.empty()) last = word;
  }
  return isOneOf(last, kSecretLastWords);
}

std::string withoutSecrets(std::string_view text) { return Redactor(text).redacted(); }

std::string withShortDocument(std::string text) {
  const std::size_t start = documentStart(text);
  if (start == text.npos) return text;
  const char closing = text[start] == '<' ? '>' : text[start] == '{' ? '}' : ']';
  const std::size_t last = text.rfind(closing);
  const std::size_t end = last == text.npos || last < start ? text.size() : last + 1;
  if (end - start <= kLoggedDocumentBytes) return text;
  std::size_t cut = start + kLoggedDocumentBytes;
  while (cut > start && (static_cast<unsigned char>(text[cut]) & 0xc0) == 0x80) --cut;
  return text.replace(cut, end - cut, kLogLineCut);
}

}  // namespace qn
