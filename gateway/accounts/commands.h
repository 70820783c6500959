// The commands that change users and devices, list them and ask the running gateway. Called by the
// host's command line, which makes its subcommands of the table here.
#pragma once

#include <filesystem>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "gateway/config/key_texts.h"

namespace qn {

enum class CommandAction { Add, Set, Passwd, Delete, List, Test, Unlock };

// One row: "qn-gateway --config FILE noun verb ARGUMENT".
struct Command {
  const char* noun;
  const char* verb;      // none: the noun is all of it
  const char* argument;  // its name; none: it takes none
  const char* about;
  CommandAction action;
  bool keys = false;      // takes an option for each key of the list
  bool password = false;  // takes --password-file
};

std::span<const Command> commands();

// An option of a key: "--http-port" sets devices.http_port. Secrets have none.
struct KeyOption {
  std::string name;
  const KeyFacts* key;
  std::string about;
};
// None when the command takes none.
std::vector<KeyOption> keyOptions(const Command& command);

struct CommandOrder {
  const Command* command = nullptr;
  std::filesystem::path config;
  std::string argument;
  std::vector<std::pair<const KeyFacts*, std::vector<std::string>>> keys;  // that were given
  std::string passwordFile;                                                // empty: none was given
  bool askPassword = false;
  bool json = false;
};

enum class CommandEnd {
  Done,
  Unreached  // the gateway, or the device, did not do it
};

// Says on standard output what it did. Throws ConfigurationError when the configuration, as it is
// or would be, has errors, and std::runtime_error for what else is in the way; nothing has changed
// then. Blocks: for another command, a password at the terminal, the gateway, the device.
CommandEnd runCommand(const CommandOrder& order);

}  // namespace qn
