// Real engines for tests: processes with files of their own, on loopback or a socket in their
// folder. A test whose engine is not installed skips itself.
#pragma once

#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/contract/events.h"
#include "tests/contract/folder.h"
#include "tests/contract/ports.h"

namespace qn {

// A program while it runs; its output goes to a file.
class Child {
 public:
  Child(std::vector<std::string> command, const std::filesystem::path& output, uid_t user = 0) {
    std::vector<char*> words;
    for (std::string& word : command) words.push_back(word.data());
    words.push_back(nullptr);
    id_ = fork();
    if (id_ != 0) return;
    const int file = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
    dup2(file, STDOUT_FILENO);
    dup2(file, STDERR_FILENO);
    if (user != 0 && (setgid(user) != 0 || setuid(user) != 0)) _exit(126);
    execv(words[0], words.data());
    _exit(127);
  }
  ~Child() { end(SIGKILL); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  int end(int signal) {
    if (id_ > 0) kill(id_, signal);
    return wait();
  }
  int wait() {
    int status = -1;
    if (id_ > 0) waitpid(id_, &status, 0);
    id_ = 0;
    return status;
  }
  void pause() const { kill(id_, SIGSTOP); }
  void resume() const { kill(id_, SIGCONT); }

 private:
  pid_t id_ = 0;
};

inline std::string installed(std::initializer_list<const char*> places) {
  for (const char* place : places) {
    if (access(place, X_OK) == 0) return place;
  }
  return {};
}

// Reached through a socket in its folder. It refuses to run as root.
class TestPostgres {
 public:
  static bool isInstalled() {
    return !program("postgres").empty() && (geteuid() != 0 || user() != 0);
  }

  TestPostgres() {
    if (geteuid() == 0) {
      EXPECT_EQ(chown(folder_.path().c_str(), user(), user()), 0);
    }
    Child init({program("initdb"), "-D", data(), "-U", "qn", "-A", "trust", "-E", "UTF8",
                "--locale=C", "--no-sync", "--no-instructions"},
               folder_.path() / "initdb.log", geteuid() == 0 ? user() : 0);
    EXPECT_EQ(init.wait(), 0) << "see " << folder_.path();
    start();
  }

  void start() {
    child_ = std::make_unique<Child>(
        std::vector<std::string>{program("postgres"), "-D", data(), "-k", folder_.path(), "-c",
                                 "listen_addresses=", "-c", "fsync=off"},
        folder_.path() / "postgres.log", geteuid() == 0 ? user() : 0);
  }
  void stop() { child_->end(SIGQUIT); }
  Child& process() { return *child_; }

  std::string uri() const {
    return "postgresql:///postgres?user=qn&host=" + folder_.path().string();
  }

 private:
  static std::string program(const std::string& name) {
    return installed({("/usr/lib/postgresql/15/bin/" + name).c_str(),
                      ("/usr/lib/postgresql/16/bin/" + name).c_str(),
                      ("/usr/bin/" + name).c_str()});
  }
  static uid_t user() {
    const passwd* const found = getpwnam("postgres");
    return found ? found->pw_uid : 0;
  }
  std::string data() const { return folder_.path() / "data"; }

  const Folder folder_;
  std::unique_ptr<Child> child_;
};

// On a free port of the loopback interface; keeps nothing on the disk.
class TestRedis {
 public:
  static bool isInstalled() { return !program().empty(); }

  explicit TestRedis(std::string password = {}) : password_(std::move(password)) { start(); }

  // Again on the same port, and empty.
  void start() {
    std::vector<std::string> command{program(), "--port",       std::to_string(port_),
                                     "--bind",  "127.0.0.1",    "--save",
                                     "",        "--appendonly", "no"};
    if (!password_.empty()) command.insert(command.end(), {"--requirepass", password_});
    child_ = std::make_unique<Child>(command, folder_.path() / "redis.log");
    EXPECT_TRUE(eventually([this] { return answers(); }));
  }
  void stop() { child_->end(SIGKILL); }
  Child& process() { return *child_; }
  uint16_t port() const { return port_; }

 private:
  static std::string program() {
    return installed({"/usr/bin/redis-server", "/usr/local/bin/redis-server"});
  }
  bool answers() const { return Socket().connect(port_); }

  const std::string password_;
  const uint16_t port_ = freePort();
  const Folder folder_;
  std::unique_ptr<Child> child_;
};

}  // namespace qn
