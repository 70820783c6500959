// qn-gateway: reads the configuration, starts the platform, loads the module and serves until
// SIGTERM or SIGINT. SIGHUP reads the configuration again, SIGUSR1 opens the log file anew.
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <string>
#include <system_error>
#include <utility>

#include "gateway/config/configuration_file.h"
#include "gateway/log/client_log.h"
#include "gateway/log/log.h"
#include "gateway/log/output.h"
#include "gateway/main/descriptors.h"
#include "gateway/main/gateway.h"

namespace {

struct Arguments {
  std::filesystem::path config;
  std::filesystem::path module;
  bool checkOnly = false;
};

// In an installation and in the build tree alike.
std::filesystem::path moduleBesideProgram() {
  const auto program = std::filesystem::read_symlink("/proc/self/exe");
  return program.parent_path().parent_path() / "lib" / "libQNKAVROProtocol.so";
}

// Blocked in every thread and taken one by one by serve(); a write to a closed socket is no signal.
sigset_t blockSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGUSR1}) sigaddset(&signals, number);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  return signals;
}

// An invalid file changes nothing.
void reload(qn::Gateway& gateway, const std::filesystem::path& file) {
  std::string refusal;
  gateway.beginReload();
  try {
    auto next = qn::readConfiguration(file);
    qn::checkReload(gateway.inForce(), next, file.string());
    gateway.reload(std::move(next));
    qn::logInfo("configuration read again from {}", file.string());
  } catch (const std::exception& error) {
    refusal = error.what();
    qn::logError("configuration not changed: {}", refusal);
  }
  gateway.endReload(refusal);
}

// Somebody has moved the log's file away.
void reopenLog() {
  try {
    qn::LogOutput::instance().reopen();
  } catch (const std::system_error& error) {
    qn::logError("the log goes on in the old file: {}", error.what());
  }
}

// While it lives, a thread writes the log.
class LogThread {
 public:
  explicit LogThread(const qn::LogOptions& options) {
    qn::setLogOptions(options);
    qn::LogOutput::instance().open(options.file);
    qn::LogOutput::instance().start();
  }
  ~LogThread() { qn::LogOutput::instance().stop(); }
  LogThread(const LogThread&) = delete;
  LogThread& operator=(const LogThread&) = delete;
};

// Operators are promised 10 s. Everything has a bound of its own; this is for what should not be.
constexpr itimerval kStopTime{{}, {9, 500'000}};

void endNow(int) {
  static constexpr char kText[] = "qn-gateway: ended without waiting for what is still under way\n";
  [[maybe_unused]] const auto written = write(STDERR_FILENO, kText, sizeof kText - 1);
  _exit(0);
}

// By a signal, because it must come where there is no memory left for a thread.
void endInTime() {
  signal(SIGALRM, endNow);
  setitimer(ITIMER_REAL, &kStopTime, nullptr);
}

// How often the log is told that a second is over.
constexpr timespec kTick{1, 0};

constexpr mode_t kNobodyElse = 077;  // may read or write the files that are made

void serve(const Arguments& arguments) {
  umask(kNobodyElse);
  const auto signals = blockSignals();
  qn::raiseDescriptorLimit();
  auto configuration = qn::readConfiguration(arguments.config);
  const LogThread logThread(configuration.log);
  qn::Gateway gateway(std::move(configuration), arguments.module);
  for (;;) {
    const int number = sigtimedwait(&signals, nullptr, &kTick);
    qn::ClientLog::instance().writeHeldBack(std::chrono::steady_clock::now());
    if (number == SIGHUP) {
      reload(gateway, arguments.config);
    } else if (number == SIGUSR1) {
      reopenLog();
    } else if (number > 0) {
      qn::logInfo("stopping on signal {}", number);
      endInTime();
      return;
    }
  }
}

}  // namespace

int main(int argc, char** argv) try {
  Arguments arguments;
  arguments.module = moduleBesideProgram();
  CLI::App app{"KAVRO gateway: one KAVRO server in front of many sub-devices."};
  app.set_version_flag("--version", std::string("qn-gateway ") + QN_VERSION);
  app.add_option("--config", arguments.config, "configuration file (TOML)")->required();
  app.add_option("--module", arguments.module, "protocol module to load")->capture_default_str();
  app.add_flag("--check-config", arguments.checkOnly, "read the configuration, say what is wrong");
  CLI11_PARSE(app, argc, argv);

  if (arguments.checkOnly) {
    qn::readConfiguration(arguments.config);
    std::cout << arguments.config.string() << " is valid\n";
    return 0;
  }
  serve(arguments);
} catch (const std::exception& error) {
  std::fprintf(stderr, "qn-gateway: %s\n", error.what());
  return 1;
}
