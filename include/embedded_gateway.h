// The whole reference gateway inside a program of one's own: HTTP service, login, buses to the
// devices, alert streams, configuration, operation log. qn-gateway is such a program; link
// QNKavro::platform. What else a program has to see to, and which pieces it can replace:
// docs/integrating.md.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/http_service.h"

namespace qn {

// What a gateway is configured with: the keys of gateway.toml(5), from a file or one by one. A
// value; nothing is read or checked before a gateway starts with it.
class GatewaySettings {
 public:
  using Value = std::variant<bool, int64_t, std::string, std::vector<std::string>>;
  using Entry = std::initializer_list<std::pair<std::string, Value>>;

  // Keys that are not set have their defaults. Relative paths begin at the current directory.
  GatewaySettings() = default;
  // The file is read at each start and reload. Relative paths begin at its folder.
  static GatewaySettings fromFile(std::filesystem::path file);

  // A key with its section, as "http.port"; replaces an earlier value. Throws std::invalid_argument
  // when it is no such name or the settings are a file's. Whether the key exists is checked later.
  GatewaySettings& set(std::string_view key, Value value);
  // One more entry of the list "users" or "devices". Throws as set() does.
  GatewaySettings& add(std::string_view list, Entry keys);

  // Empty unless they are a file's.
  const std::filesystem::path& file() const { return file_; }
  // As the file's content would be.
  std::string toml() const;

 private:
  using Keys = std::map<std::string, Value>;

  std::filesystem::path file_;
  std::map<std::string, Keys> sections_;
  std::vector<std::pair<std::string, Keys>> lists_;
};

// The pieces that are given to a gateway; each may be left as it is. Operations of platform/ are
// replaced by defining them in the program.
struct GatewayParts {
  // The protocol module's functions, or others in their place, as QNKAVROProtocol.h declares them;
  // all three or none.
  struct Module {
    int (*init)() = nullptr;
    int (*uninit)() = nullptr;
    int (*process)(int& bodyIsXml, std::string& body, int& asyncReply,
                   const QNHttpService::stHttpRes& request) = nullptr;
  };

  // The installed module: the file beside libqnplatform.so.
  static std::filesystem::path installedModule();

  // Loaded unless functions are given; stays loaded until the process ends.
  std::filesystem::path moduleFile = installedModule();
  Module module = {};
  // An operator asks for a reload, on the admin port or with a command: has the thread that starts
  // and stops call reload() soon, and returns at once. On a thread of the gateway's. Without it
  // they are told that nobody reloads.
  std::function<void()> reloadWanted = {};
};

// One at a time in a process: the operations of platform/ are functions of the process, and belong
// to the gateway that runs. All operations, but those that say otherwise, on one thread at a time;
// all block, none longer than is said.
class EmbeddedGateway {
 public:
  explicit EmbeddedGateway(GatewayParts parts = {});
  ~EmbeddedGateway();  // stops
  EmbeddedGateway(const EmbeddedGateway&) = delete;
  EmbeddedGateway& operator=(const EmbeddedGateway&) = delete;

  // When it returns, the ports are open and requests are served, on threads of the gateway's own.
  // Throws std::runtime_error with what is wrong, for the operator, a line for each fault of the
  // settings; std::logic_error when a gateway is running. What was started is stopped again.
  void start(const GatewaySettings& settings);
  // Ends within 10 s: no new connections; requests in flight are finished, or answered that the
  // gateway is stopping; the operation log is on the disk. Harmless without a start. It may be
  // started again.
  void stop();

  // Puts other settings in force while it runs, but for the keys that need a restart, which is
  // logged. Returns what is wrong with them, and nothing has changed then; empty when they are in
  // force. Throws nothing but std::bad_alloc.
  std::string reload(const GatewaySettings& settings);
  // The log's file has been moved away: goes on in a new one. A failure is logged.
  void reopenLog();

  bool isRunning() const;
  // While it runs; any thread but during start() and stop().
  uint16_t port() const;
  std::string description() const;  // what it serves, for the operator
  // How long the slowest of its threads that must never block has owed its next step. Seconds mean
  // that something which it was given blocks, a module's function or an operation; for a watchdog.
  std::chrono::milliseconds silence() const;

 private:
  class Running;

  GatewayParts parts_;
  std::unique_ptr<Running> running_;
};

}  // namespace qn
