// See key_texts.h.
#include "gateway/config/key_texts.h"

#include <algorithm>
#include <limits>
#include <type_traits>

#include "gateway/config/findings.h"
#include "gateway/config/key_tables.h"

namespace qn {
namespace {

template <class Value>
inline constexpr bool kIsNumber = (std::is_integral_v<Value> && !std::is_same_v<Value, bool>) ||
                                  std::is_same_v<Value, std::chrono::seconds>;

std::string rangeText(const Range& range) {
  std::string text = "integer from " + std::to_string(range.min);
  if (range.max != std::numeric_limits<int64_t>::max()) text += " to " + std::to_string(range.max);
  return text;
}

template <class Value>
std::string kindOf(const Range& range, const TextRule* rule, const char* unit) {
  const std::string expected = rule ? std::string(": ") + rule->expected : "";
  if constexpr (std::is_same_v<Value, bool>) return "true or false";
  if constexpr (kIsNumber<Value>)
    return rangeText(range) + (*unit ? std::string(", in ") + unit : "");
  if constexpr (std::is_same_v<Value, std::vector<std::string>>) return "list of texts" + expected;
  return "text" + expected;
}

template <class Value>
constexpr KeyFacts::Shape shapeOf() {
  if (std::is_same_v<Value, bool>) return KeyFacts::Shape::Flag;
  if (kIsNumber<Value>) return KeyFacts::Shape::Number;
  if (std::is_same_v<Value, std::vector<std::string>>) return KeyFacts::Shape::List;
  return KeyFacts::Shape::Text;
}

template <class S>
KeyFacts factsOf(std::string_view section, const Key<S>& key) {
  KeyFacts facts;
  facts.name = (section.empty() ? "" : std::string(section) + '.') + std::string(key.name);
  facts.about = key.about;
  facts.secret = key.traits.secret;
  facts.required = key.traits.required;
  facts.restart = key.traits.restart;
  if (key.rule) facts.choices.assign(key.rule->choices.begin(), key.rule->choices.end());
  const S standard{};
  std::string value;
  std::visit(
      [&](auto member) {
        using Value = std::remove_cvref_t<decltype(standard.*member)>;
        facts.shape = shapeOf<Value>();
        facts.kind = kindOf<Value>(key.range, key.rule, key.traits.unit);
        value = tomlText(standard.*member);
      },
      key.member);
  facts.standard = key.traits.otherwise.empty() ? value : std::string(key.traits.otherwise);
  const std::string_view shown = key.traits.example.empty() ? value : key.traits.example;
  facts.line = std::string(key.name) + " = " + std::string(shown);
  return facts;
}

template <class S, std::size_t N>
SectionFacts sectionOf(std::string_view name, std::string_view about, bool isList,
                       const Key<S> (&keys)[N]) {
  SectionFacts section{std::string(name), std::string(about), isList, {}};
  for (const Key<S>& key : keys) section.keys.push_back(factsOf(name, key));
  return section;
}

std::string headOf(const SectionFacts& section) {
  if (section.name.empty()) return "FILE";
  return section.isList ? "[[" + section.name + "]]" : '[' + section.name + ']';
}

std::string effectOf(const KeyFacts& key) {
  return key.restart ? "a change takes effect at the next start"
                     : "a change takes effect at a reload";
}

std::string explained(const KeyFacts& key) {
  const std::string standard = key.required ? "must be there" : "without it: " + key.standard;
  return key.name + ": " + key.about + "\n    " + key.kind + "\n    " + standard + "\n    " +
         effectOf(key) + "\n    for example: " + key.line + '\n';
}

std::string explained(const SectionFacts& section) {
  std::string text = headOf(section) + ": " + section.about + '\n';
  for (const KeyFacts& key : section.keys) text += '\n' + explained(key);
  return text;
}

bool standsInExample(const SectionFacts& section) {
  return !section.isList ||
         std::ranges::find(kListsInExample, section.name) != std::end(kListsInExample);
}

// The line of the user and the device that the example has.
bool standsInExample(const SectionFacts& section, const KeyFacts& key) {
  return standsInExample(section) && (key.required || key.name == "users.password");
}

// Comment lines of at most 100 characters.
std::string commented(std::string_view text) {
  constexpr std::size_t kMost = 98;
  std::string result;
  while (!text.empty()) {
    std::size_t end = text.size();
    if (end > kMost) end = text.rfind(' ', kMost);
    result += "# " + std::string(text.substr(0, end)) + '\n';
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return result;
}

std::string exampleOf(const SectionFacts& section, const KeyFacts& key) {
  const std::string effect = key.restart ? "; needs a restart" : "";
  return '\n' + commented(key.about + " (" + key.kind + ')' + effect) +
         (standsInExample(section, key) ? "" : "# ") + key.line + '\n';
}

// As troff reads it: no line begins with a control character.
std::string troff(std::string_view text) {
  std::string result;
  for (const char c : text) {
    if (c == '\\' || c == '-') result += '\\';
    result += c == '\\' ? "e" : std::string(1, c);
  }
  return result.starts_with('.') || result.starts_with('\'') ? "\\&" + result : result;
}

std::string manualOf(const KeyFacts& key) {
  const std::string standard =
      key.required ? "Must be there." : "Without it: " + key.standard + '.';
  const std::string name = key.name.substr(key.name.find('.') + 1);
  return ".TP\n.B " + troff(name) + '\n' + troff(key.about) + ".\n.br\n" +
         troff("Takes: " + key.kind + ". " + standard) + '\n' +
         (key.restart ? "A change takes effect at the next start.\n" : "");
}

}  // namespace

const std::vector<SectionFacts>& sectionFacts() {
  static const std::vector<SectionFacts> facts = [] {
    std::vector<SectionFacts> all{sectionOf("", kTopAbout, false, kTopKeys)};
    forEachSection([&](std::string_view name, std::string_view about, const auto& keys, auto) {
      all.push_back(sectionOf(name, about, false, keys));
    });
    forEachList([&](std::string_view name, std::string_view about, const auto& keys) {
      all.push_back(sectionOf(name, about, true, keys));
    });
    return all;
  }();
  return facts;
}

std::string explanationOf(std::string_view name) {
  std::string text;
  for (const SectionFacts& section : sectionFacts()) {
    if (name.empty() || name == section.name)
      text += (text.empty() ? "" : "\n") + explained(section);
    for (const KeyFacts& key : section.keys) {
      if (name == key.name) text = explained(key);
    }
  }
  return text;
}

// By its whole name, or by that of the key alone, in whatever section.
std::string didYouMeanKey(std::string_view name) {
  std::vector<std::string_view> names;
  for (const SectionFacts& section : sectionFacts()) {
    if (!section.name.empty()) names.push_back(section.name);
    for (const KeyFacts& key : section.keys) {
      if (key.name.ends_with('.' + std::string(name)))
        return "; did you mean \"" + key.name + "\"?";
      names.push_back(key.name);
    }
  }
  return didYouMean(name, names);
}

std::string exampleConfiguration() {
  std::string text =
      "# qn-gateway: every key. What is commented out shows its default, or an example.\n"
      "# Made by qn-gateway --print-defaults; qn-gateway --explain KEY says more.\n";
  for (const SectionFacts& section : sectionFacts()) {
    if (!section.name.empty()) {
      text += "\n\n" + std::string(standsInExample(section) ? "" : "# ") + headOf(section) +
              "  # " + section.about + '\n';
    }
    for (const KeyFacts& key : section.keys) text += exampleOf(section, key);
  }
  return text;
}

std::string manualPage() {
  std::string text =
      ".TH gateway.toml 5\n.SH NAME\ngateway.toml \\- configuration of qn\\-gateway\n"
      ".SH DESCRIPTION\nA TOML file of at most 4 MiB: sections with keys, one\n.B [[users]]\n"
      "and one\n.B [[devices]]\nfor each user and device. "
      "Without a section or a key its default holds. Strings have one line. Unknown keys,\n"
      "wrong types and impossible values are errors; qn\\-gateway \\-\\-check\\-config reports all "
      "of\nthem. On SIGHUP the file is read again; one with an error changes nothing.\n.PP\n"
      "Where a file with a secret is named, \"credential:NAME\" means the credential NAME that "
      "the\n"
      "service manager has loaded (LoadCredential= of systemd.exec(5)).\n";
  for (const SectionFacts& section : sectionFacts()) {
    text += ".SH " + (section.name.empty() ? "TOP" : headOf(section)) + '\n' +
            troff(section.about) + ".\n";
    for (const KeyFacts& key : section.keys) text += manualOf(key);
  }
  return text + ".SH SEE ALSO\n.BR qn\\-gateway (8)\n";
}

std::string completionWords() {
  std::string text;
  for (const SectionFacts& section : sectionFacts()) {
    if (!section.name.empty()) text += section.name + '\n';
    for (const KeyFacts& key : section.keys) text += key.name + '\n';
  }
  return text;
}

}  // namespace qn
