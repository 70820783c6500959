// See commands.h.
#include "gateway/accounts/commands.h"

#include <json/json.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <system_error>

#include "gateway/accounts/accounts_file.h"
#include "gateway/accounts/device_test.h"
#include "gateway/accounts/entry_text.h"
#include "gateway/accounts/passwords.h"
#include "gateway/admin/control.h"
#include "gateway/config/configuration_changes.h"
#include "gateway/config/configuration_file.h"
#include "gateway/config/toml_table.h"

namespace qn {
namespace {

using enum CommandAction;

constexpr Command kCommands[] = {
    {"user", "add", "NAME", "adds a user", Add, true, true},
    {"user", "set", "NAME", "changes what a user may use", Set, true},
    {"user", "passwd", "NAME", "gives a user another password", Passwd, false, true},
    {"user", "del", "NAME", "takes a user away", Delete},
    {"user", "list", "", "shows the users", List},
    {"device", "add", "INDEX", "adds a device", Add, true, true},
    {"device", "set", "INDEX", "changes a device", Set, true, true},
    {"device", "del", "INDEX", "takes a device away", Delete},
    {"device", "list", "", "shows the devices", List},
    {"device", "test", "INDEX", "connects, logs in and reads the device's name", Test},
    {"lock", "list", "", "shows the client addresses that are locked", List},
    {"unlock", "", "ADDRESS", "lets a locked client address log in again", Unlock},
};

bool isUser(const Command& command) { return command.noun == std::string_view("user"); }
std::string_view listOf(const Command& command) { return isUser(command) ? "users" : "devices"; }
std::string_view nameKeyOf(const Command& command) { return isUser(command) ? "name" : "index"; }

const SectionFacts& factsOf(std::string_view list) {
  return *std::ranges::find(sectionFacts(), list, &SectionFacts::name);
}

// Without its section.
std::string keyName(const KeyFacts& key) { return key.name.substr(key.name.find('.') + 1); }

// Those that say or hold a secret are set by other means.
bool hasOption(const KeyFacts& key, std::string_view nameKey) {
  const std::string name = keyName(key);
  return !key.secret && name != "password_file" && name != "ha1_file" && name != nameKey;
}

// A text that is no number stays a text, so that the check says what is wrong with it.
std::string valueOf(const KeyFacts& key, const std::vector<std::string>& texts) {
  using Shape = KeyFacts::Shape;
  const std::string& text = texts.empty() ? std::string() : texts.front();
  const bool isNumber =
      !text.empty() && text.size() < 19 && text.find_first_not_of("0123456789") == text.npos;
  if (key.shape == Shape::List) return tomlText(texts);
  if (key.shape == Shape::Number && isNumber) return std::to_string(std::stoll(text));
  if (key.shape == Shape::Flag && (text == "true" || text == "false")) return text;
  return tomlText(text);
}

// An empty text takes the key away; that of the login takes the password as well.
Assignments givenKeys(const CommandOrder& order) {
  Assignments keys;
  for (const auto& [key, texts] : order.keys) {
    const bool empty = std::ranges::all_of(texts, &std::string::empty);
    std::optional<std::string> value;
    if (!empty) value = valueOf(*key, texts);
    keys.push_back({keyName(*key), std::move(value)});
    if (!empty || keyName(*key) != "username") continue;
    for (const char* other : {"password", "password_file"}) keys.push_back({other, {}});
  }
  return keys;
}

std::string readPassword(const CommandOrder& order) {
  if (!order.passwordFile.empty()) return passwordFromFile(order.passwordFile);
  return passwordFromTerminal("password of " + std::string(order.command->noun) + ' ' +
                              order.argument);
}

void print(const std::string& line) { std::cout << line << '\n'; }

std::string shown(const CommandOrder& order) {
  return std::string(order.command->noun) + " \"" + order.argument + '"';
}

Json::Value askRunning(const std::filesystem::path& config, const std::string& question) {
  const Configuration read = examineConfiguration(config, {nullptr, true}).configuration;
  const std::string text = askGateway(read.storage.dataDir, question);
  Json::Value answer;
  if (!Json::Reader().parse(text, answer)) throw std::runtime_error("the gateway answers nonsense");
  if (answer.isObject() && answer.isMember("error")) {
    throw std::runtime_error("the gateway says: " + answer["error"].asString());
  }
  return answer;
}

bool isNotRunning(const std::system_error& error) {
  return error.code().value() == ENOENT || error.code().value() == ECONNREFUSED;
}

CommandEnd complain(const std::string& what) {
  std::cerr << "qn-gateway: " << what << '\n';
  return CommandEnd::Unreached;
}

// Has it read what has been written.
CommandEnd tellGateway(const std::filesystem::path& config) try {
  const Json::Value answer = askRunning(config, "reload");
  if (!answer["taken"].asBool()) {
    return complain("the running gateway goes on as before: " + answer["reason"].asString());
  }
  print("the running gateway has taken it");
  return CommandEnd::Done;
} catch (const std::system_error& error) {
  if (!isNotRunning(error)) {
    return complain(std::string("the running gateway was not told, reload it: ") + error.what());
  }
  print("no gateway is running; the next one takes it at its start");
  return CommandEnd::Done;
} catch (const std::runtime_error& error) {
  return complain(std::string("the running gateway was not told, reload it: ") + error.what());
}

// One line for each entry under a line of names, in columns.
void printTable(const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths(rows.front().size());
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
    }
    print(line.substr(0, line.find_last_not_of(' ') + 1));
  }
}

// As a person reads it: texts without quotes.
std::string plain(const std::string& toml) {
  return toml.starts_with('"') ? toml.substr(1, toml.size() - 2) : toml;
}

void printJson(const ListedEntries& entries) {
  std::string text;
  for (const auto& values : entries.rows) {
    std::string object;
    for (std::size_t i = 0; i < values.size(); ++i) {
      object += (i == 0 ? "" : ", ") + tomlText(entries.keys[i]) + ": " + values[i];
    }
    text += (text.empty() ? "\n  {" : ",\n  {") + object + '}';
  }
  print('[' + text + "\n]");  // TOML's values are JSON's
}

// The keys that some entry has at another value than the usual one.
void printEntries(const ListedEntries& entries) {
  std::vector<std::vector<std::string>> rows(entries.rows.size() + 1);
  for (std::size_t key = 0; key < entries.keys.size(); ++key) {
    const auto says = [&](const auto& row) { return row[key] != entries.standard[key]; };
    if (key != 0 && std::ranges::none_of(entries.rows, says)) continue;
    rows[0].push_back(entries.keys[key]);
    for (std::size_t i = 0; i < entries.rows.size(); ++i) {
      rows[i + 1].push_back(plain(entries.rows[i][key]));
    }
  }
  printTable(rows);
}

CommandEnd list(const CommandOrder& order) {
  const ListedEntries entries = listedEntries(order.config, listOf(*order.command));
  order.json ? printJson(entries) : printEntries(entries);
  return CommandEnd::Done;
}

template <class Ask>
CommandEnd orComplain(Ask ask) try {
  return ask();
} catch (const std::system_error& error) {
  if (isNotRunning(error)) return complain("no gateway is running");
  return complain(std::string("the running gateway cannot be asked: ") + error.what());
}

CommandEnd listLocks(const CommandOrder& order) {
  return orComplain([&] {
    const Json::Value locks = askRunning(order.config, "locks");
    std::vector<std::vector<std::string>> rows{{"address", "unlocked in"}};
    for (const Json::Value& lock : locks) {
      rows.push_back({lock["address"].asString(), lock["seconds"].asString() + " s"});
    }
    order.json ? print(locks.toStyledString()) : printTable(rows);
    return CommandEnd::Done;
  });
}

CommandEnd unlock(const CommandOrder& order) {
  return orComplain([&] {
    const bool was = askRunning(order.config, "unlock " + order.argument)["unlocked"].asBool();
    print(order.argument + (was ? " is not locked any more" : " was not locked"));
    return CommandEnd::Done;
  });
}

// Whether the device's password is a credential, which only the service has.
bool hasCredentialElsewhere(const CommandOrder& order) {
  const ListedEntries all = listedEntries(order.config, "devices");
  const auto column = [&](std::string_view key) {
    return std::size_t(std::ranges::find(all.keys, key) - all.keys.begin());
  };
  return !std::getenv("CREDENTIALS_DIRECTORY") &&
         std::ranges::any_of(all.rows, [&](const auto& row) {
           return row[column("index")] == tomlText(order.argument) &&
                  row[column("password_file")].starts_with("\"credential:");
         });
}

CommandEnd test(const CommandOrder& order) {
  const Configuration read = examineConfiguration(order.config, {nullptr, true}).configuration;
  const DeviceConfig* const device = read.findDevice(order.argument);
  if (!device) throw ConfigurationError({shown(order) + " is not there"});
  if (hasCredentialElsewhere(order)) {
    return complain("the password of " + shown(order) +
                    " is a credential that the service manager gives to the service alone");
  }
  return testDevice(*device, std::cout) ? CommandEnd::Done : CommandEnd::Unreached;
}

// One change of the file that the configuration includes first.
class Change {
 public:
  explicit Change(const CommandOrder& order)
      : order_(order),
        files_(includedFiles(order.config)),
        entry_{listOf(*order.command), nameKeyOf(*order.command), order.argument} {
    if (!files_.empty()) return;
    throw ConfigurationError(
        {order.config.string() +
         ": commands write the first file that it includes, and it includes none: put the line "
         "include = [\"accounts.toml\"] before the first section"});
  }

  CommandEnd run() {
    const std::string password = wantsPassword() ? readPassword(order_) : std::string();
    file_.emplace(files_.front(), order_.config);
    const std::string before = file_->content();
    const bool there = hasEntry(before, entry_);
    if (order_.command->action == Add && there) fail(shown(order_) + " is there already");
    if (order_.command->action != Add && !there) failForMissing();
    const std::string after = changed(before, password);
    check(before, after);
    file_->replace(after);
    file_.reset();  // before the gateway is waited for
    print(shown(order_) + ' ' + what() + ' ' + files_.front().string());
    return tellGateway(order_.config);
  }

 private:
  [[noreturn]] static void fail(const std::string& what) { throw ConfigurationError({what}); }

  [[noreturn]] void failForMissing() const {
    const Configuration all = examined(file_->content()).configuration;
    const bool elsewhere = isUser(*order_.command) ? all.findUser(order_.argument) != nullptr
                                                   : all.findDevice(order_.argument) != nullptr;
    fail(shown(order_) + (elsewhere ? " does not stand in " + files_.front().string() +
                                          ", which alone is changed by commands: move it there"
                                    : " is not there"));
  }

  bool wantsPassword() const {
    const Command& command = *order_.command;
    if (!order_.passwordFile.empty() || order_.askPassword) return !isCredential();
    if (isUser(command)) return command.action == Add || command.action == Passwd;
    const auto isName = [](const auto& given) { return keyName(*given.first) == "username"; };
    return command.action == Add && std::ranges::any_of(order_.keys, isName);
  }

  bool isCredential() const {
    return !isUser(*order_.command) && order_.passwordFile.starts_with("credential:");
  }

  const char* what() const {
    switch (order_.command->action) {
      case Add:
        return "added to";
      case Delete:
        return "taken out of";
      default:
        return "changed in";
    }
  }

  std::string changed(const std::string& before, const std::string& password) {
    if (order_.command->action == Delete) return withoutEntry(before, entry_);
    Assignments keys = givenKeys(order_);
    if (isCredential()) {
      keys.push_back({"password_file", tomlText(order_.passwordFile)});
      keys.push_back({"password", {}});
    } else if (!password.empty() && isUser(*order_.command)) {
      addDigests(before, password, keys);
    } else if (!password.empty()) {
      keys.push_back({"password", tomlText(password)});
      keys.push_back({"password_file", {}});
    }
    return order_.command->action == Add ? withEntry(before, entry_, keys)
                                         : withChanged(before, entry_, keys);
  }

  // What the user may log in with: MD5 and SHA-256, or the stronger one alone. The password itself
  // is checked as one that stands in the file.
  void addDigests(const std::string& before, const std::string& password, Assignments& keys) const {
    Assignments trial = keys;
    trial.push_back({"password", tomlText(password)});
    for (const char* other : {"password_file", "ha1", "ha1_file", "ha1_sha256"}) {
      trial.push_back({other, {}});
    }
    const bool isNew = order_.command->action == Add;
    const Configuration made =
        examined(isNew ? withEntry(before, entry_, trial) : withChanged(before, entry_, trial))
            .configuration;
    const UserConfig& user = *made.findUser(order_.argument);
    for (const char* other : {"password", "password_file", "ha1_file"}) keys.push_back({other, {}});
    keys.push_back({"ha1", tomlText(user.ha1)});
    std::optional<std::string> strong;
    if (!user.strongHa1.empty()) strong = tomlText(user.strongHa1);
    keys.push_back({"ha1_sha256", std::move(strong)});
  }

  ReadConfiguration examined(const std::string& content) const {
    const IncludedText instead{files_.front(), content};
    return examineConfiguration(order_.config, {&instead, true});
  }

  // By what a reload and --check-config go by. Only what the change brings is warned about.
  void check(const std::string& before, const std::string& after) const {
    const ReadConfiguration next = examined(after);
    const auto former = whatStands(before);
    if (former) {
      checkReload(former->configuration, next.configuration, order_.config.string());
    }
    for (const std::string& line : next.warnings) {
      const bool known =
          former && std::ranges::find(former->warnings, line) != former->warnings.end();
      if (!known) std::cerr << "warning: " << line << '\n';
    }
  }

  // Nothing when it has errors, which the change may be about to mend.
  std::optional<ReadConfiguration> whatStands(const std::string& content) const try {
    return examined(content);
  } catch (const ConfigurationError&) {
    return {};
  }

  const CommandOrder& order_;
  const std::vector<std::filesystem::path> files_;
  const EntryName entry_;
  std::optional<AccountsFile> file_;
};

}  // namespace

std::span<const Command> commands() { return kCommands; }

std::vector<KeyOption> keyOptions(const Command& command) {
  std::vector<KeyOption> options;
  if (!command.keys) return options;
  for (const KeyFacts& key : factsOf(listOf(command)).keys) {
    if (!hasOption(key, nameKeyOf(command))) continue;
    std::string name = "--" + keyName(key);
    std::ranges::replace(name, '_', '-');
    options.push_back({std::move(name), &key, key.about + " (" + key.kind + ')'});
  }
  return options;
}

CommandEnd runCommand(const CommandOrder& order) {
  const std::string_view noun = order.command->noun;
  switch (order.command->action) {
    case List:
      return noun == "lock" ? listLocks(order) : list(order);
    case Unlock:
      return unlock(order);
    case Test:
      return test(order);
    default:
      return Change(order).run();
  }
}

}  // namespace qn
