// See entry_text.h.
#include "gateway/accounts/entry_text.h"

#include <toml++/toml.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "gateway/config/toml_syntax.h"
#include "gateway/config/toml_table.h"

namespace qn {
namespace {

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what); }

toml::table parsed(const std::string& text) {
  Findings findings("the file");
  toml::table table = parseToml(text, findings);
  if (findings.hasErrors()) fail(findings.errors().front());
  return table;
}

toml::table* find(toml::table& root, const EntryName& entry) {
  toml::array* const list = root.get_as<toml::array>(entry.list);
  if (!list) return nullptr;
  for (toml::node& each : *list) {
    toml::table* const table = each.as_table();
    if (table && table->at_path(entry.key).value<std::string_view>() == entry.name) return table;
  }
  return nullptr;
}

toml::table& found(toml::table& root, const EntryName& entry) {
  if (toml::table* const table = find(root, entry)) return *table;
  fail(std::string(entry.list) + ": there is no " + tomlText(std::string(entry.name)));
}

// The offset of a place; the library counts characters from 1.
std::size_t offsetOf(std::string_view text, const toml::source_position& at) {
  std::size_t offset = 0;
  for (uint32_t line = 1; line < at.line; ++line) {
    offset = std::min(text.find('\n', offset), text.size() - 1) + 1;
  }
  const auto continues = [&] { return offset < text.size() && (text[offset] & 0xC0) == 0x80; };
  for (uint32_t column = 1; column < at.column && offset < text.size(); ++column) {
    do {
      ++offset;
    } while (continues());
  }
  return offset;
}

std::size_t startOfLine(std::string_view text, std::size_t offset) {
  const std::size_t end = offset == 0 ? text.npos : text.rfind('\n', offset - 1);
  return end == text.npos ? 0 : end + 1;
}

// Behind its line end, or the text's end.
std::size_t endOfLine(std::string_view text, std::size_t offset) {
  const std::size_t end = text.find('\n', offset);
  return end == text.npos ? text.size() : end + 1;
}

struct Span {
  std::size_t begin;
  std::size_t end;
};

Span spanOf(std::string_view text, const toml::source_region& region) {
  return {offsetOf(text, region.begin), offsetOf(text, region.end)};
}

// What a section takes: its head's line up to the line of its last key.
Span linesOf(const std::string& text, const toml::table& table) {
  const Span head = spanOf(text, table.source());
  if (!std::string_view(text).substr(head.begin).starts_with("[[")) {
    fail("line " + std::to_string(table.source().begin.line) +
         ": an inline table; write it as a section, or change it by hand");
  }
  std::size_t last = head.begin;
  for (const auto& [key, value] : table) {
    last = std::max(last, spanOf(text, value.source()).end);
  }
  return {startOfLine(text, head.begin), endOfLine(text, last)};
}

std::string lineOf(const Assignment& assignment) {
  return assignment.key + " = " + *assignment.value + '\n';
}

// A replacement of some bytes.
struct Edit {
  Span span;
  std::string text;
};

// From the last to the first, so that none moves another.
std::string applied(std::string text, std::vector<Edit> edits) {
  std::ranges::stable_sort(edits, std::greater(), [](const Edit& edit) { return edit.span.begin; });
  for (const auto& [span, replacement] : edits) {
    text.replace(span.begin, span.end - span.begin, replacement);
  }
  return text;
}

Edit editOf(const std::string& text, const toml::table& table, std::size_t end,
            const Assignment& assignment) {
  const auto place = table.find(assignment.key);
  if (place == table.cend()) {
    return {{end, end}, assignment.value ? lineOf(assignment) : std::string()};
  }
  const Span value = spanOf(text, place->second.source());
  if (assignment.value) return {value, *assignment.value};
  const std::size_t key = offsetOf(text, place->first.source().begin);
  return {{startOfLine(text, key), endOfLine(text, value.end)}, {}};
}

void assign(toml::table& table, const Assignments& keys) {
  for (const Assignment& each : keys) {
    table.erase(each.key);
    if (!each.value) continue;
    toml::table made = toml::parse(lineOf(each));
    table.insert(each.key, std::move(*made.get(each.key)));
  }
}

// Whatever the text looked like: it says what it should, and nothing else has changed.
std::string checked(std::string text, const toml::table& expected) {
  if (parsed(text) == expected) return text;
  fail("this file is written in a way that cannot be changed safely; change it by hand");
}

}  // namespace

bool hasEntry(const std::string& text, const EntryName& entry) {
  toml::table root = parsed(text);
  return find(root, entry) != nullptr;
}

std::string withEntry(const std::string& text, const EntryName& entry, const Assignments& keys) {
  toml::table expected = parsed(text);
  Assignments all{{std::string(entry.key), tomlText(std::string(entry.name))}};
  all.insert(all.end(), keys.begin(), keys.end());
  std::erase_if(all, [](const Assignment& each) { return !each.value; });
  if (!expected.contains(entry.list)) expected.insert(entry.list, toml::array());
  toml::array* const list = expected.get_as<toml::array>(entry.list);
  if (!list) fail(std::string(entry.list) + ": expected sections");
  toml::table table;
  assign(table, all);
  list->push_back(std::move(table));

  std::string result = text;
  if (!result.empty() && !result.ends_with('\n')) result += '\n';
  if (!result.empty()) result += '\n';
  result += "[[" + std::string(entry.list) + "]]\n";
  for (const Assignment& each : all) result += lineOf(each);
  return checked(std::move(result), expected);
}

std::string withChanged(const std::string& text, const EntryName& entry, const Assignments& keys) {
  toml::table root = parsed(text);
  toml::table& table = found(root, entry);
  std::string whole = text;
  if (!whole.ends_with('\n')) whole += '\n';
  const std::size_t end = linesOf(whole, table).end;
  std::vector<Edit> edits;
  std::string further;  // together, so that they keep their order
  for (const Assignment& each : keys) {
    Edit edit = editOf(whole, table, end, each);
    if (table.contains(each.key)) {
      edits.push_back(std::move(edit));
    } else {
      further += edit.text;
    }
  }
  if (!further.empty()) edits.push_back({{end, end}, std::move(further)});
  assign(table, keys);
  return checked(applied(std::move(whole), std::move(edits)), root);
}

std::string withoutEntry(const std::string& text, const EntryName& entry) {
  toml::table root = parsed(text);
  toml::table& table = found(root, entry);
  Span lines = linesOf(text, table);
  // One of the two blank lines around it.
  const bool blankBefore =
      lines.begin == 0 || (lines.begin > 1 && text.compare(lines.begin - 2, 2, "\n\n") == 0);
  if (blankBefore && lines.end < text.size() && text[lines.end] == '\n') {
    ++lines.end;
  } else if (blankBefore && lines.end == text.size() && lines.begin > 0) {
    --lines.begin;
  }
  toml::array& list = *root.get_as<toml::array>(entry.list);
  const auto isIt = [&](const toml::node& each) { return each.as_table() == &table; };
  list.erase(std::find_if(list.cbegin(), list.cend(), isIt));
  if (list.empty()) root.erase(entry.list);
  return checked(applied(text, {{lines, {}}}), root);
}

}  // namespace qn
