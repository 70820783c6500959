// Reads the values of Authorization and WWW-Authenticate, item by item and without allocation:
// scheme names, parameters, and what some schemes have instead of parameters. Used by
// digest_credentials and devices/device_login.
#pragma once

#include <string>
#include <string_view>

namespace qn {

class AuthReader {
 public:
  enum class Item {
    Scheme,     // name() is set
    Parameter,  // name() and value() are set
    Token68,    // a scheme's single value, as Basic and Negotiate have it; not kept
    End,
    Malformed,  // nothing that follows can be told apart; every later next() says so too
  };

  // Does not copy `text`.
  explicit AuthReader(std::string_view text) : rest_(text) {}

  Item next();
  std::string_view name() const { return name_; }
  // Without the surrounding quotes; the escapes of a quoted string are still in it.
  std::string_view value() const { return value_; }

 private:
  Item readValue();
  Item readQuoted();
  Item malformed();
  std::string_view takeToken();
  void skipBlanks();

  std::string_view rest_;
  std::string_view name_;
  std::string_view value_;
  bool malformed_ = false;
};

// A quoted string's text with its escapes resolved.
std::string unescapeQuoted(std::string_view value);
// The text as the inside of a quoted string.
std::string escapeQuoted(std::string_view text);

}  // namespace qn
