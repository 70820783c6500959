// QNBase::CXmlBase on pugixml: the tree is pugixml's, the position in it and the strictness about
// what is a document are ours.
#include "platform/xml_base.h"

#include <algorithm>
#include <cstring>
#include <pugixml.hpp>

#include "gateway/base/xml_memory.h"
#include "text/xml.h"

namespace QNBase {
namespace {

using enum qn::text::XmlPlace;

[[maybe_unused]] const bool kPagesAreKept = qn::keepXmlPages();

// A tree takes up to 16 times its text; no document of the protocol comes near.
constexpr std::size_t kMaxText = 1024 * 1024;
constexpr int kMaxDepth = 256;
constexpr std::string_view kBlanks = " \t\r\n";
// Nothing but the blanks between elements is skipped unseen. A text that comes first in an element
// is kept in the element itself, without a node of its own. The tree holds text and attributes as
// they are written, with their references: pugixml would let wrong ones pass when reading and lose
// carriage returns when writing.
constexpr unsigned kParseOptions = (pugi::parse_full | pugi::parse_fragment |
                                    pugi::parse_ws_pcdata_single | pugi::parse_embed_pcdata) &
                                   ~pugi::parse_escapes;
constexpr unsigned kWriteOptions =
    pugi::format_raw | pugi::format_no_declaration | pugi::format_no_escapes;

// The library is not inlined: the loops below ask it for as little as they can.

pugi::xml_node firstElementFrom(pugi::xml_node node) {
  while (node && node.type() != pugi::node_element) node = node.next_sibling();
  return node;
}

// `node` or its first later sibling that is an element of this name.
pugi::xml_node findFrom(pugi::xml_node node, const char* name) {
  if (std::strcmp(node.name(), name) != 0) node = node.next_sibling(name);
  while (node && node.type() != pugi::node_element) node = node.next_sibling(name);
  return node;
}

std::string_view withoutMarkAndBlanks(std::string_view text) {
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  return text.substr(std::min(text.find_first_not_of(kBlanks), text.size()));
}

bool isBlank(std::string_view text) { return text.find_first_not_of(kBlanks) == text.npos; }

// Whether a child of the document may stand there, before or after the root element.
bool isAllowedAtTop(pugi::xml_node node, bool first, bool afterRoot) {
  switch (node.type()) {
    case pugi::node_element:
    case pugi::node_pi:
      return !afterRoot;
    case pugi::node_comment:
      return true;
    case pugi::node_pcdata:
      return isBlank(node.value());
    case pugi::node_declaration:
      return first;
    default:
      return false;
  }
}

// One root element and nothing beside it that a document may not have.
bool hasSoundTop(const pugi::xml_document& tree) {
  bool seenRoot = false;
  for (pugi::xml_node node : tree.children()) {
    if (!isAllowedAtTop(node, node == tree.first_child(), seenRoot)) return false;
    seenRoot = seenRoot || node.type() == pugi::node_element;
  }
  return seenRoot;
}

// Checks a value as it stood in the text, and makes it fit for double quotes.
bool settleAttribute(pugi::xml_attribute attribute) {
  const std::string_view raw = attribute.value();
  if (raw.find('<') != raw.npos) return false;
  if (raw.find_first_of("&\"") == raw.npos) return true;
  std::string decoded, escaped;
  if (!qn::text::appendDecodedXml(raw, decoded)) return false;
  qn::text::appendEscapedXml(decoded, Attribute, escaped);
  return attribute.set_value(escaped.c_str());
}

bool hasSoundReferences(std::string_view raw) {
  std::string decoded;
  return raw.find('&') == raw.npos || qn::text::appendDecodedXml(raw, decoded);
}

bool settleAttributes(pugi::xml_node node) {
  for (auto attribute = node.first_attribute(); attribute; attribute = attribute.next_attribute()) {
    if (!settleAttribute(attribute)) return false;
  }
  return true;
}

bool hasSoundText(pugi::xml_node node) {
  const pugi::xml_node_type type = node.type();
  const bool holdsText = type == pugi::node_element || type == pugi::node_pcdata;
  return !holdsText || hasSoundReferences(node.value());
}

// The node that follows in the text, or none; `depth` is that of the node.
pugi::xml_node following(pugi::xml_node node, int& depth) {
  pugi::xml_node next = node.first_child();
  if (next) {
    ++depth;
    return next;
  }
  for (next = node.next_sibling(); !next && depth > 1; next = node.next_sibling()) {
    node = node.parent();
    --depth;
  }
  return next;
}

// Visits the whole tree, without recursion: its depth is the sender's choice until it is known.
bool settle(const pugi::xml_document& tree, bool hasReferences) {
  int depth = 1;  // of what stands in the document
  for (pugi::xml_node node = tree.first_child(); node; node = following(node, depth)) {
    if (depth > kMaxDepth && node.type() == pugi::node_element) return false;
    if (hasReferences && !hasSoundText(node)) return false;
    if (!settleAttributes(node)) return false;
  }
  return true;
}

class StringWriter final : public pugi::xml_writer {
 public:
  void write(const void* data, size_t size) override {
    text.append(static_cast<const char*>(data), size);
  }
  std::string text;
};

class BufferWriter final : public pugi::xml_writer {
 public:
  BufferWriter(char* buffer, std::size_t capacity) : buffer_(buffer), capacity_(capacity) {}
  void write(const void* data, size_t size) override {
    const std::size_t fitting = std::min(size, capacity_ - length_);
    if (fitting != 0) std::memcpy(buffer_ + length_, data, fitting);
    length_ += fitting;
    complete_ = complete_ && fitting == size;
  }
  std::size_t length() const { return length_; }
  bool complete() const { return complete_; }

 private:
  char* buffer_;
  std::size_t capacity_;
  std::size_t length_ = 0;
  bool complete_ = true;
};

}  // namespace

struct CXmlBase::Document {
  pugi::xml_document tree;
  pugi::xml_node entered = tree;  // P
  pugi::xml_node selected;        // cur
  pugi::xml_node origin;          // org
  std::string text;               // reused by escaped

  void enter(pugi::xml_node node) {
    entered = node;
    selected = origin = pugi::xml_node();
  }
  void select(pugi::xml_node node) { selected = origin = node; }

  bool load(std::string_view source) {
    return source.size() <= kMaxText && source.starts_with('<') && qn::text::isXmlText(source) &&
           tree.load_buffer(source.data(), source.size(), kParseOptions, pugi::encoding_utf8) &&
           hasSoundTop(tree) && settle(tree, source.find('&') != source.npos);
  }

  // The text as it is written, ending in NUL; valid until the next call.
  const char* escaped(std::string_view source, qn::text::XmlPlace place) {
    text.clear();
    qn::text::appendEscapedXml(source, place, text);
    return text.c_str();
  }
};

CXmlBase::CXmlBase() : document_(std::make_unique<Document>()) {}
CXmlBase::~CXmlBase() = default;

bool CXmlBase::Parse(std::string_view text) {
  const bool sound = document_->load(withoutMarkAndBlanks(text));
  if (!sound) document_->tree.reset();
  document_->enter(document_->tree);
  return sound;
}

bool CXmlBase::FindElem(const char* name) {
  const pugi::xml_node from =
      document_->origin ? document_->origin : document_->entered.first_child();
  const pugi::xml_node found = findFrom(from, name);
  if (found) document_->select(found);
  return !found.empty();
}

bool CXmlBase::FindElemNoOrder(const char* name) {
  const pugi::xml_node found = findFrom(document_->entered.first_child(), name);
  if (found) document_->selected = found;
  return !found.empty();
}

bool CXmlBase::NextSibElem() {
  const pugi::xml_node next = firstElementFrom(document_->selected.next_sibling());
  if (next) document_->select(next);
  return !next.empty();
}

bool CXmlBase::IntoElem() {
  if (!document_->selected) return false;
  document_->enter(document_->selected);
  return true;
}

bool CXmlBase::OutOfElem() {
  const pugi::xml_node left = document_->entered;
  if (left == document_->tree) return false;
  document_->entered = left.parent();
  document_->select(left);
  return true;
}

std::string CXmlBase::GetData() const {
  std::string data;
  const pugi::xml_node element = document_->selected;
  qn::text::appendDecodedXml(element.value(), data);
  for (auto child = element.first_child(); child; child = child.next_sibling()) {
    if (child.type() == pugi::node_pcdata) qn::text::appendDecodedXml(child.value(), data);
    if (child.type() == pugi::node_cdata) data += child.value();
  }
  return data;
}

void CXmlBase::CreateDeclaration(const char* version, const char* encoding) {
  pugi::xml_document& tree = document_->tree;
  if (tree.first_child().type() == pugi::node_declaration) tree.remove_child(tree.first_child());
  pugi::xml_node declaration = tree.prepend_child(pugi::node_declaration);
  declaration.set_name("xml");
  declaration.append_attribute("version").set_value(document_->escaped(version, Attribute));
  declaration.append_attribute("encoding").set_value(document_->escaped(encoding, Attribute));
}

void CXmlBase::CreateRoot(const char* name) {
  pugi::xml_document& tree = document_->tree;
  while (pugi::xml_node old = tree.document_element()) tree.remove_child(old);
  document_->enter(tree.append_child(name));
}

void CXmlBase::AddNode(const char* name) {
  document_->enter(document_->entered.append_child(name));
}

void CXmlBase::AddNode(const char* name, std::string_view text) {
  AddNode(name);
  const char* escaped = document_->escaped(text, Text);
  if (*escaped != '\0') document_->entered.append_child(pugi::node_pcdata).set_value(escaped);
}

void CXmlBase::SetAttribute(const char* name, std::string_view value) {
  if (document_->entered == document_->tree) return;
  pugi::xml_attribute attribute = document_->entered.attribute(name);
  if (!attribute) attribute = document_->entered.append_attribute(name);
  attribute.set_value(document_->escaped(value, Attribute));
}

std::string CXmlBase::GetChildren() const {
  StringWriter writer;
  document_->tree.print(writer, "", kWriteOptions, pugi::encoding_utf8);
  return std::move(writer.text);
}

bool CXmlBase::WriteToBuf(char* buffer, int capacity, int& length) const {
  const bool usable = buffer != nullptr && capacity > 0;
  BufferWriter writer(buffer, usable ? static_cast<std::size_t>(capacity) : 0);
  document_->tree.print(writer, "", kWriteOptions, pugi::encoding_utf8);
  length = static_cast<int>(writer.length());
  return writer.complete();
}

}  // namespace QNBase
