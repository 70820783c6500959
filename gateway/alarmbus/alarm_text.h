// Alarm documents as text: where one ends, and whose it is. Works on the bytes, because building a
// tree for each alarm would cost more than everything else the bus does with it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qn {

// Walks a JSON text byte by byte; only strings and nesting matter to it. It may be fed in pieces.
class JsonScanner {
 public:
  enum class Event {
    Inside,
    MemberObjectEnd,  // this byte ends an object that is a member of the root
    RootEnd,          // this byte ends the root
    NotJson           // a comment, or more ends than beginnings
  };

  Event step(char c);
  // The next byte at or after `from` that step() must see; all before it are Inside.
  std::size_t skip(std::string_view text, std::size_t from) const;

 private:
  Event close();

  int depth_ = 0;
  bool inString_ = false;
  bool escaped_ = false;
};

// Gives every object that is a member of the root the member "devIndex" with this value (JSON text,
// quotes included), as its last one, so that it wins over the device's own. Drops what follows the
// root. False when the text is no JSON object.
bool setDeviceIndex(std::string_view alarm, std::string_view quotedIndex, std::string& out);

}  // namespace qn
