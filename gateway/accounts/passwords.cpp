// See passwords.h.
#include "gateway/accounts/passwords.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <iostream>
#include <stdexcept>
#include <system_error>

#include "gateway/config/secret_file.h"

namespace qn {
namespace {

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what); }

// While it lives, the terminal shows nothing, and signals that would end the process wait.
class QuietTerminal {
 public:
  QuietTerminal() : terminal_(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY)) {
    if (terminal_ < 0) fail("there is no terminal to ask at: give --password-file FILE");
    sigset_t ending;
    sigemptyset(&ending);
    for (const int number : {SIGINT, SIGTERM, SIGQUIT, SIGHUP, SIGTSTP}) {
      sigaddset(&ending, number);
    }
    sigprocmask(SIG_BLOCK, &ending, &signalsBefore_);
    signals_ = ::signalfd(-1, &ending, SFD_CLOEXEC);
    ::tcgetattr(terminal_, &before_);
    termios quiet = before_;
    quiet.c_lflag &= ~tcflag_t(ECHO);
    quiet.c_lflag |= ECHONL;
    ::tcsetattr(terminal_, TCSAFLUSH, &quiet);
  }
  ~QuietTerminal() {
    ::tcsetattr(terminal_, TCSAFLUSH, &before_);
    ::close(signals_);
    ::close(terminal_);
    sigprocmask(SIG_SETMASK, &signalsBefore_, nullptr);  // what has waited comes now
  }
  QuietTerminal(const QuietTerminal&) = delete;
  QuietTerminal& operator=(const QuietTerminal&) = delete;

  std::string ask(const std::string& prompt) const {
    [[maybe_unused]] const auto shown = ::write(terminal_, prompt.data(), prompt.size());
    std::array<pollfd, 2> ready{{{terminal_, POLLIN, 0}, {signals_, POLLIN, 0}}};
    const auto patience = std::chrono::milliseconds(kTypingTime).count();
    const int count = ::poll(ready.data(), ready.size(), int(patience));
    if (count <= 0) fail("nobody has typed a password");
    if (ready[1].revents != 0) fail("interrupted");
    std::array<char, SecretFile::kMost> line;
    const ssize_t size = ::read(terminal_, line.data(), line.size());
    if (size <= 0) fail("no password was typed");
    std::string typed(line.data(), std::size_t(size));
    if (typed.ends_with('\n')) typed.pop_back();
    return typed;
  }

 private:
  const int terminal_;
  int signals_ = -1;
  termios before_{};
  sigset_t signalsBefore_{};
};

}  // namespace

std::string passwordFromFile(const std::string& file) try {
  std::string content = contentOf(file == "-" ? "/dev/stdin" : file, SecretFile::kMost);
  if (content.ends_with('\n')) content.pop_back();
  if (content.ends_with('\r')) content.pop_back();
  if (content.empty() || content.size() > SecretFile::kMost || content.find('\n') != content.npos) {
    fail(file + ": expected one line of at most " + std::to_string(SecretFile::kMost) + " bytes");
  }
  return content;
} catch (const std::system_error& error) {
  fail(file + " cannot be read: " + error.code().message());
}

std::string passwordFromTerminal(const std::string& prompt) {
  const QuietTerminal terminal;
  std::string password = terminal.ask(prompt + ": ");
  if (password != terminal.ask("the same again: ")) fail("the two passwords differ");
  if (password.empty()) fail("an empty password");
  return password;
}

}  // namespace qn
