// Where a command gets a password from: a file, or the terminal; never an argument, which others
// can read. Used by the commands.
#pragma once

#include <chrono>
#include <string>

namespace qn {

inline constexpr std::chrono::seconds kTypingTime{120};  // for a password at the terminal

// One line of the file, "-": of the standard input, without its end. Throws std::runtime_error when
// it cannot be read or has more than one line.
std::string passwordFromFile(const std::string& file);

// Asks twice at the process's terminal, which shows nothing of it. Throws std::runtime_error when
// there is none, nobody types or the two differ. A signal ends the process with the terminal as it
// was.
std::string passwordFromTerminal(const std::string& prompt);

}  // namespace qn
