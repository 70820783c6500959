// XML documents of the protocol: read and written by every converter. The reference implementation
// is gateway/base.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace QNBase {

// One XML document and a position in it: the entered element P (at first the document itself), the
// selected child cur, and the origin org where a forward search starts (none: at the first child).
// Only elements count as children and siblings. Not thread-safe; different objects are independent.
class CXmlBase {
 public:
  CXmlBase();
  ~CXmlBase();
  CXmlBase(const CXmlBase&) = delete;
  CXmlBase& operator=(const CXmlBase&) = delete;

  // Replaces the tree and returns to the document. A byte-order mark and leading blanks are
  // skipped. False, with an empty document, for blank or malformed text (wrong references, invalid
  // UTF-8 and characters that XML forbids included), a DOCTYPE, anything but blanks and comments
  // after the root, more than 1 MiB, or elements nested deeper than 256.
  bool Parse(std::string_view text);

  // Selects the first child of P with this name at or after org, the one found last included:
  // cur = org = the child. Not found: false, and nothing changes.
  bool FindElem(const char* name);
  // The same over all children from the first; found: cur = the child, org stays.
  bool FindElemNoOrder(const char* name);
  // cur and org move to cur's next sibling of any name; false, and nothing changes, at the end.
  bool NextSibElem();
  // Enters cur, with neither child selected nor an origin; false without a cur. An element without
  // children can be entered.
  bool IntoElem();
  // Leaves P, which becomes cur and org of its parent; false at the document.
  bool OutOfElem();
  // The direct text and CDATA of cur, decoded and not trimmed; empty without a cur. Blanks alone
  // between two pieces of markup count only as the whole content of an element.
  std::string GetData() const;

  // Writing. Text that XML cannot hold is made fit: forbidden characters are dropped, invalid UTF-8
  // becomes U+FFFD. Names must be valid XML names.
  void CreateDeclaration(const char* version, const char* encoding);
  void CreateRoot(const char* name);  // creates the root and enters it
  // Appends a child to P and enters it: every AddNode is paired with one OutOfElem.
  void AddNode(const char* name);
  void AddNode(const char* name, std::string_view text);
  void SetAttribute(const char* name, std::string_view value);  // of P; the document has none

  // The whole document as text, without indentation.
  std::string GetChildren() const;
  // Copies at most `capacity` bytes of that text; length: the bytes copied, without a NUL. False
  // when not all fitted.
  bool WriteToBuf(char* buffer, int capacity, int& length) const;

 private:
  struct Document;
  std::unique_ptr<Document> document_;
};

}  // namespace QNBase
