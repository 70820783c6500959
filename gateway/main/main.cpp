// qn-gateway: reads the configuration, starts the platform, loads the module and serves until
// SIGTERM or SIGINT. SIGHUP reads the configuration again, SIGUSR1 opens the log file anew.
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#ifdef QN_JEMALLOC
#include <jemalloc/jemalloc.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>

#include "gateway/config/configuration_file.h"
#include "gateway/host/descriptors.h"
#include "gateway/log/log.h"
#include "gateway/main/command_line.h"
#include "gateway/main/service_manager.h"
#include "include/embedded_gateway.h"

#ifdef QN_JEMALLOC
// Read by the allocator before main(): up to this size it keeps freed memory for the next one who
// asks, for some seconds. Its own choice is 8 MiB, which is what reading a JSON reply of 1 MB takes
// for a moment: a fifth of such a reply's cost was for pages given back and taken anew.
const char* malloc_conf = "oversize_threshold:67108864";  // NOLINT: the allocator's name
#endif

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

// Returns what came of it, for the operator.
std::string reload(qn::EmbeddedGateway& gateway, const qn::GatewaySettings& settings) {
  const std::string refusal = gateway.reload(settings);
  return refusal.empty() ? gateway.description() : "configuration not changed: " + refusal;
}

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

// How often the reactors are asked whether they turn.
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
void tick(const qn::EmbeddedGateway& gateway, qn::ServiceManager& manager) {
  if (gateway.silence() < manager.watchdog() / 2) manager.feed(std::chrono::steady_clock::now());
}

// Reading a configuration takes much more than what is kept of it; by itself the allocator gives
// that back when more is freed later, which an idle gateway does not do.
void giveMemoryBack() {
#ifdef QN_JEMALLOC
  constexpr char kPurge[] = "arena.4096.purge";
  static_assert(MALLCTL_ARENAS_ALL == 4096);
  mallctl(kPurge, nullptr, nullptr, nullptr, 0);
#endif
}

constexpr mode_t kNobodyElse = 077;  // may read or write the files that are made

void serve(const qn::Arguments& arguments) {
  umask(kNobodyElse);
  const auto signals = blockSignals();
  qn::raiseDescriptorLimit();
  const auto settings = qn::GatewaySettings::fromFile(arguments.config);
  qn::ServiceManager manager;
  qn::EmbeddedGateway gateway(
      {.moduleFile = arguments.module, .reloadWanted = [] { kill(getpid(), SIGHUP); }});
  gateway.start(settings);
  giveMemoryBack();
  manager.ready(gateway.description());
  const timespec wait = tickFor(manager);
  for (;;) {
    const int number = sigtimedwait(&signals, nullptr, &wait);
    tick(gateway, manager);
    if (number == SIGHUP) {
      manager.reloading();
      const std::string outcome = reload(gateway, settings);
      giveMemoryBack();
      manager.ready(outcome);
    } else if (number == SIGUSR1) {
      gateway.reopenLog();
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
