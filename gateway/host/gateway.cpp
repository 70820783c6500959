// See gateway.h.
#include "gateway/host/gateway.h"

#include <fmt/format.h>

#include <algorithm>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "gateway/config/configuration_changes.h"
#include "gateway/config/configuration_file.h"
#include "gateway/host/descriptors.h"
#include "gateway/host/engines.h"
#include "gateway/host/protocol_module.h"
#include "gateway/log/client_log.h"
#include "gateway/log/log.h"
#include "gateway/log/output.h"
#include "gateway/login/login.h"
#include "gateway/oplog/operation_log.h"
#include "gateway/runtime/timers.h"
#include "include/version.h"
#include "platform/config_mgr.h"

namespace qn {
namespace {

// One queue entry is one request.
constexpr std::size_t kFileWorkers = 4;
constexpr std::size_t kWaitingWorkers = 4 * DeviceBus::kAwaited;  // so many devices may hang
constexpr std::size_t kTranslationWorkers = 2;
constexpr std::size_t kWorkerQueue = 256;

// How the 10 s for stopping are spent: first requests may end by themselves, then the bus answers
// what is left.
constexpr std::chrono::seconds kFinishTime{6};
constexpr std::chrono::seconds kAnswerTime{2};

// How often the log is told that a second may be over.
constexpr std::chrono::milliseconds kHeldBackCheck{500};

// What the operator can do about a port that cannot be listened on.
std::string adviceFor(const std::error_code& error, std::string_view key) {
  const std::string change = fmt::format("change {}", key);
  const std::string address = key.starts_with("https.") ? "https.address" : "http.address";
  switch (error.value()) {
    case EADDRINUSE:
      return "; end the program that has it (ss -ltnp shows it), or " + change;
    case EADDRNOTAVAIL:
      return "; " + address + " must be one of this host's (ip address shows them)";
    case EACCES:
      return "; give the gateway CAP_NET_BIND_SERVICE, or " + change + " to one from 1024 on";
    default:
      return "; " + change + " or " + address;
  }
}

template <class Listen>
void listenOrAdvise(std::string_view key, Listen listen) try {
  listen();
} catch (const SecurePortError& error) {
  throw std::runtime_error(error.what() + adviceFor(error.code(), "https.port"));
} catch (const std::system_error& error) {
  throw std::runtime_error(error.what() + adviceFor(error.code(), key));
}

}  // namespace

Gateway::Gateway(Configuration configuration, const GatewayParts& parts)
    : configuration_(std::make_shared<const Configuration>(std::move(configuration))),
      module_(protocolModule(parts)),
      folder_(configuration_->storage.dataDir),
      pictures_(std::filesystem::path(configuration_->storage.dataDir) / "pictures",
                configuration_->pictures, [this](uint16_t port) { return http_.serves(port); }),
      archive_(operationArchive(*configuration_)),
      cluster_(clusterOf(*configuration_, clientLogin())),
      files_(kFileWorkers, kWorkerQueue),
      waiting_(kWaitingWorkers, kWorkerQueue),
      translations_(kTranslationWorkers, kWorkerQueue),
      bus_(reactors_, translations_, devices_),
      feeds_(reactors_, translations_, devices_),
      alarms_(cluster_->feeds(feeds_)),
      http_(reactors_, {files_, waiting_}, withinDescriptors(*configuration_),
            {module_.process, recogniseLogin, cluster_->await()}, HttpBounds{},
            {pictures_.resource()}, configuration_->https),
      pulse_(reactors_),
      reminders_(reactors_.context(0)),
      health_(pulse_),
      reloads_(parts.reloadWanted),
      control_(clientLogin(), reloads_),
      admin_(observed()) {
  try {
    start();
  } catch (...) {
    stop();
    throw;
  }
}

Gateway::~Gateway() {
  stop();
  logInfo("stopped");
}

void Gateway::start() {
  publishConfiguration(configuration_);
  OperationLog::instance().start(configuration_->storage.dataDir,
                                 configuration_->storage.operationLogRows);
  archive_->start(OperationLog::fileIn(configuration_->storage.dataDir));
  cluster_->start();
  bus_.start();
  alarms_.start();
  reactors_.start();
  pulse_.start();
  boost::asio::post(reminders_.get_executor(), [this] { writeReminders(); });
  admin_.open(configuration_->admin, configuration_->lock);
  module_.init();
  listenOrAdvise("http.port", [this] { http_.listen(); });
  listenOrAdvise("https.port", [this] { http_.listenSecurely(); });
  // A gateway without its picture port would hand out dead URLs.
  listenOrAdvise("network.picture_port", [this] {
    http_.listenOn(configuration_->network.picturePort, Access::OwnResources);
  });
  applyExtraPorts();
  health_.setStarted();
  openControl();
  logInfo("{}", description());
}

// A gateway serves without it; only commands do not reach it.
void Gateway::openControl() try {
  control_.open(configuration_->storage.dataDir);
} catch (const std::system_error& error) {
  logWarn("commands do not reach this gateway: {}", error.what());
}

std::string Gateway::description() const {
  const HttpOptions& http = configuration_->http;
  const HttpsOptions& https = configuration_->https;
  std::string where;
  if (http.enabled) where = fmt::format("{} port {}", http.address, http_.port());
  if (https.isOn()) {
    where += fmt::format("{}{} port {} (HTTPS)", where.empty() ? "" : " and ", https.address,
                         https.port);
  }
  return fmt::format("serving {} device(s) on {}", configuration_->devices.size(), where);
}

std::chrono::milliseconds Gateway::silence() const {
  return std::max(pulse_.longestSilence(), timersOverdue());
}

// Until the reactors end.
void Gateway::writeReminders() {
  const auto now = std::chrono::steady_clock::now();
  ClientLog::instance().writeHeldBack(now);
  expiry_.remind(*configuration(), now);
  reminders_.expires_after(kHeldBackCheck);
  reminders_.async_wait([this](const boost::system::error_code& error) {
    if (!error) writeReminders();
  });
}

// Every step is harmless for what has not been started.
void Gateway::stop() {
  using std::chrono::steady_clock;
  health_.setStopping();
  reloads_.close();
  control_.close();
  if (health_.hasStarted()) http_.leadElsewhere(configuration_->http.drainTime);
  http_.stopAccepting();
  http_.drain(steady_clock::now() + kFinishTime);
  module_.uninit();
  alarms_.stop();
  bus_.stop();
  http_.drain(steady_clock::now() + kAnswerTime);
  http_.close();
  admin_.close();
  files_.stop();
  waiting_.stop();
  translations_.stop();
  OperationLog::instance().stop();
  archive_->stop();
  cluster_->stop();
  reactors_.stop();
}

void Gateway::reload(Configuration next) {
  for (const std::string& key : keepUntilRestart(*configuration_, next)) {
    logWarn("{} takes effect after a restart; until then it stays as it was", key);
  }
  takeWhatMayFail(next);
  const std::vector<std::string> changed = changedKeys(*configuration_, next);
  logInfo("a reload changes {}",
          changed.empty() ? "nothing" : fmt::to_string(fmt::join(changed, ", ")));
  configuration_ = std::make_shared<const Configuration>(std::move(next));
  publishConfiguration(configuration_);
  setLogOptions(configuration_->log);
  pictures_.setOptions(configuration_->pictures);
  OperationLog::instance().keep(configuration_->storage.operationLogRows);
  applyExtraPorts();
  http_.closeForbiddenStreams();
}

// All of it or nothing.
void Gateway::takeWhatMayFail(const Configuration& next) {
  listenOrAdvise("http.port", [&] { http_.setOptions(withinDescriptors(next), next.https); });
  try {
    if (next.log.file != configuration_->log.file) LogOutput::instance().open(next.log.file);
  } catch (...) {
    http_.setOptions(withinDescriptors(*configuration_), configuration_->https);
    applyExtraPorts();
    throw;
  }
}

void Gateway::endReload(const std::string& refusal) {
  reloads_.end(refusal);
  admin_.reopen(configuration_->admin, configuration_->lock);
}

Observed Gateway::observed() {
  return {http_,
          pulse_,
          devices_,
          bus_,
          alarms_,
          pictures_,
          OperationLog::instance(),
          *archive_,
          clientLogin(),
          {{"files", files_}, {"devices", waiting_}, {"translations", translations_}},
          health_,
          enginesOf(*archive_, *cluster_),
          cluster_->counts(),
          reloads_,
          QN_KAVRO_VERSION};
}

void Gateway::applyExtraPorts() {
  std::map<uint16_t, Access> ports{{configuration_->network.picturePort, Access::OwnResources}};
  if (configuration_->kavro.mode == KAVRO_MODE_DEVICE_PORTS) {
    for (const auto& device : configuration_->devices) {
      if (device.httpPort != 0) ports.emplace(device.httpPort, Access::Everything);
    }
  }
  http_.setExtraPorts(ports);
}

}  // namespace qn
