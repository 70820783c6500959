// qn-gateway: reads the configuration, starts the platform, loads the module and serves until
// SIGTERM or SIGINT. SIGHUP reads the configuration again, SIGUSR1 opens the log file anew.
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "gateway/config/configuration_file.h"
#include "gateway/host/descriptors.h"
#include "gateway/host/gateway.h"
#include "gateway/log/client_log.h"
#include "gateway/log/log.h"
#include "gateway/log/output.h"
#include "gateway/main/command_line.h"
#include "gateway/main/service_manager.h"

namespace {

// Blocked in every thread and taken one by one by serve(); a write to a closed socket is no signal.
sigset_t blockSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGUSR1}) sigaddset(&signals, number);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  return signals;
}

// Returns the first of them, for the operator.
std::string reportRefusal(const std::vector<std::string>& lines) {
  for (const std::string& line : lines) qn::logError("configuration not changed: {}", line);
  const std::size_t more = lines.size() - 1;
  return more == 0 ? lines[0] : fmt::format("{} (and {} more, see the log)", lines[0], more);
}

// An invalid file changes nothing. Returns what came of it, for the operator.
std::string reload(qn::Gateway& gateway, const std::filesystem::path& file) {
  gateway.beginReload();
  std::string refusal;
  try {
    auto next = qn::readConfiguration(file);
    qn::checkReload(gateway.inForce(), next, file.string());
    gateway.reload(std::move(next));
    qn::logInfo("configuration read again from {}", file.string());
  } catch (const qn::ConfigurationError& error) {
    refusal = reportRefusal(error.lines());
  } catch (const std::exception& error) {
    refusal = reportRefusal({error.what()});
  }
  gateway.endReload(refusal);
  return refusal.empty() ? gateway.description() : "configuration not changed: " + refusal;
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

// How often the log is told that a second may be over, and the reactors are asked whether they
// turn.
constexpr std::chrono::milliseconds kTick{500};
constexpr std::chrono::milliseconds kShortestTick{20};
constexpr int kTicksInWatchdog = 8;

timespec tickFor(const qn::ServiceManager& manager) {
  using namespace std::chrono;
  if (manager.watchdog().count() == 0) return {0, nanoseconds(kTick).count()};
  const auto tick =
      std::clamp<nanoseconds>(manager.watchdog() / kTicksInWatchdog, kShortestTick, kTick);
  return {0, tick.count()};
}

// The watchdog is fed while all threads that serve turn.
void tick(qn::Gateway& gateway, qn::ServiceManager& manager) {
  const auto now = std::chrono::steady_clock::now();
  qn::ClientLog::instance().writeHeldBack(now);
  gateway.remind();
  if (gateway.silence() < manager.watchdog() / 2) manager.feed(now);
}

constexpr mode_t kNobodyElse = 077;  // may read or write the files that are made

void serve(const qn::Arguments& arguments) {
  umask(kNobodyElse);
  const auto signals = blockSignals();
  qn::raiseDescriptorLimit();
  auto configuration = qn::readConfiguration(arguments.config);
  const LogThread logThread(configuration.log);
  qn::ServiceManager manager;
  qn::Gateway gateway(std::move(configuration), arguments.module);
  manager.ready(gateway.description());
  const timespec wait = tickFor(manager);
  for (;;) {
    const int number = sigtimedwait(&signals, nullptr, &wait);
    tick(gateway, manager);
    if (number == SIGHUP) {
      manager.reloading();
      manager.ready(reload(gateway, arguments.config));
    } else if (number == SIGUSR1) {
      reopenLog();
    } else if (number > 0) {
      qn::logInfo("stopping on signal {}", number);
      manager.stopping(fmt::format("stopping on signal {}", number));
      endInTime();
      return;
    }
  }
}

int endWith(qn::ExitStatus status, const char* text) {
  std::fprintf(stderr, "qn-gateway: %s\n", text);
  return int(status);
}

}  // namespace

int main(int argc, char** argv) try {
  qn::Arguments arguments;
  if (const auto done = qn::readCommandLine(argc, argv, arguments)) return int(*done);
  serve(arguments);
  return int(qn::ExitStatus::Good);
} catch (const qn::ConfigurationError& error) {
  return endWith(qn::ExitStatus::BadConfiguration, error.what());
} catch (const std::exception& error) {
  return endWith(qn::ExitStatus::NotDone, error.what());
}
