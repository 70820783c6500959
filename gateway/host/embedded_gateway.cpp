// See include/embedded_gateway.h.
#include "include/embedded_gateway.h"

#include <dlfcn.h>

#include <atomic>
#include <stdexcept>
#include <system_error>

#include "gateway/config/configuration_changes.h"
#include "gateway/config/configuration_file.h"
#include "gateway/host/gateway.h"
#include "gateway/log/log.h"
#include "gateway/log/output.h"
#include "include/version.h"

namespace qn {
namespace {

constexpr char kNameOfValues[] = "settings";  // in the place of a file's

Configuration read(const GatewaySettings& settings) {
  if (!settings.file().empty()) return readConfiguration(settings.file());
  return readConfiguration(settings.toml(), kNameOfValues);
}

std::string nameOf(const GatewaySettings& settings) {
  return settings.file().empty() ? kNameOfValues : settings.file().string();
}

// Returns the first of them, for the operator.
std::string reportRefusal(const std::vector<std::string>& lines) {
  for (const std::string& line : lines) logError("configuration not changed: {}", line);
  const std::size_t more = lines.size() - 1;
  return more == 0 ? lines[0] : fmt::format("{} (and {} more, see the log)", lines[0], more);
}

// While it lives, a thread writes the log.
class LogThread {
 public:
  explicit LogThread(const LogOptions& options) {
    setLogOptions(options);
    LogOutput::instance().open(options.file);
    LogOutput::instance().start();
  }
  ~LogThread() { LogOutput::instance().stop(); }
  LogThread(const LogThread&) = delete;
  LogThread& operator=(const LogThread&) = delete;
};

// The process's one place for a gateway.
class OnlyOne {
 public:
  OnlyOne() {
    if (taken_.exchange(true)) throw std::logic_error("a gateway is running in this process");
  }
  ~OnlyOne() { taken_ = false; }
  OnlyOne(const OnlyOne&) = delete;
  OnlyOne& operator=(const OnlyOne&) = delete;

 private:
  static inline std::atomic<bool> taken_{false};
};

}  // namespace

class EmbeddedGateway::Running {
 public:
  Running(Configuration configuration, const GatewayParts& parts)
      : log_(configuration.log), gateway_(std::move(configuration), parts) {}

  const Gateway& gateway() const { return gateway_; }

  std::string reload(const GatewaySettings& settings) {
    gateway_.beginReload();
    std::string refusal = refusalOf(settings);
    gateway_.endReload(refusal);
    return refusal;
  }

 private:
  std::string refusalOf(const GatewaySettings& settings) try {
    auto next = read(settings);
    checkReload(gateway_.inForce(), next, nameOf(settings));
    gateway_.reload(std::move(next));
    logInfo("configuration read again from {}", nameOf(settings));
    return {};
  } catch (const ConfigurationError& error) {
    return reportRefusal(error.lines());
  } catch (const std::exception& error) {
    return reportRefusal({error.what()});
  }

  OnlyOne place_;
  LogThread log_;
  Gateway gateway_;
};

EmbeddedGateway::EmbeddedGateway(GatewayParts parts) : parts_(std::move(parts)) {}

EmbeddedGateway::~EmbeddedGateway() = default;

void EmbeddedGateway::start(const GatewaySettings& settings) {
  if (running_) throw std::logic_error("the gateway is running");
  running_ = std::make_unique<Running>(read(settings), parts_);
}

void EmbeddedGateway::stop() { running_.reset(); }

std::string EmbeddedGateway::reload(const GatewaySettings& settings) {
  return running_ ? running_->reload(settings) : "the gateway is not running";
}

void EmbeddedGateway::reopenLog() {
  try {
    LogOutput::instance().reopen();
  } catch (const std::system_error& error) {
    logError("the log goes on in the old file: {}", error.what());
  }
}

bool EmbeddedGateway::isRunning() const { return running_ != nullptr; }
uint16_t EmbeddedGateway::port() const { return running_ ? running_->gateway().port() : 0; }

std::string EmbeddedGateway::description() const {
  return running_ ? running_->gateway().description() : "not running";
}

std::chrono::milliseconds EmbeddedGateway::silence() const {
  return running_ ? running_->gateway().silence() : std::chrono::milliseconds(0);
}

std::filesystem::path GatewayParts::installedModule() {
  Dl_info library{};
  const auto here = reinterpret_cast<const void*>(&platformVersion);
  std::filesystem::path name = QN_MODULE_NAME;
  if (dladdr(here, &library) == 0 || !library.dli_fname) return name;
  return std::filesystem::absolute(library.dli_fname).lexically_normal().parent_path() / name;
}

const char* platformVersion() { return QN_KAVRO_VERSION; }

}  // namespace qn
