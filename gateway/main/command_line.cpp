// See command_line.h.
#include "gateway/main/command_line.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <map>
#include <string>

#include "gateway/accounts/commands.h"
#include "gateway/config/configuration_file.h"
#include "gateway/config/key_texts.h"
#include "include/version.h"

namespace qn {
namespace {

class CommandLine {
 public:
  explicit CommandLine(Arguments& arguments) : arguments_(arguments) {
    app_.set_version_flag("--version", std::string("qn-gateway ") + platformVersion());
    app_.add_option("--config", arguments.config, "configuration file (TOML)");
    app_.add_option("--module", arguments.module, "protocol module to load")->capture_default_str();
    app_.add_flag("--check-config", checkOnly_, "read the configuration, say all that is wrong");
    app_.add_option("--print", printed_, "print the value of a key, as \"http.port\", and end")
        ->type_name("KEY");
    app_.add_option("--explain", explained_, "say what a section or a key is for; without: all")
        ->expected(0, 1)
        ->type_name("KEY");
    app_.add_flag("--print-defaults", defaults_, "print a configuration with every key");
    app_.add_flag("--print-manual", manual_, "print gateway.toml(5)");
    app_.add_flag("--print-words", words_, "print the keys for a shell's completion");
    app_.add_flag("--print-commands", commandWords_, "print the commands for a shell's completion");
    app_.footer("Ends with 0, or 1: configuration, 2: command line, 3: not started, not done.");
    app_.fallthrough();
    app_.require_subcommand(0, 1);
    for (const Command& command : commands()) addCommand(command);
  }

  std::optional<ExitStatus> read(int argc, char** argv) try {
    app_.parse(argc, argv);
    return done();
  } catch (const CLI::ParseError& error) {
    return app_.exit(error) == 0 ? ExitStatus::Good : ExitStatus::BadUsage;
  }

 private:
  // "user" of "user add"; made at its first command.
  CLI::App& nounOf(const Command& command) {
    CLI::App*& noun = nouns_[command.noun];
    if (noun) return *noun;
    noun = app_.add_subcommand(command.noun, std::string("commands of ") + command.noun + 's');
    noun->require_subcommand(1)->fallthrough();
    return *noun;
  }

  void addCommand(const Command& command) {
    const bool alone = command.verb[0] == '\0';
    CLI::App& app = alone ? *app_.add_subcommand(command.noun, command.about)
                          : *nounOf(command).add_subcommand(command.verb, command.about);
    app.fallthrough();
    app.callback([this, &command] { order_.command = &command; });
    if (command.argument[0] != '\0') {
      app.add_option(command.argument, order_.argument)->required()->type_name("");
    }
    for (const KeyOption& option : keyOptions(command)) addKey(app, command, option);
    if (command.password) {
      app.add_option("--password-file", order_.passwordFile,
                     "file with the password, in one line; - for the standard input; without it "
                     "the terminal is asked")
          ->type_name("FILE");
    }
    if (command.password && command.action == CommandAction::Set) {
      app.add_flag("--ask-password", order_.askPassword, "ask for a new password");
    }
    if (command.action == CommandAction::List) {
      app.add_flag("--json", order_.json, "as a JSON document");
    }
  }

  void addKey(CLI::App& app, const Command& command, const KeyOption& option) {
    const KeyFacts* const key = option.key;
    const auto take = [this, key](const std::vector<std::string>& texts) {
      order_.keys.emplace_back(key, texts);
      return true;
    };
    CLI::Option* const added = app.add_option(option.name, take, option.about)->type_name("VALUE");
    if (key->shape == KeyFacts::Shape::List) {
      added->expected(1, CLI::detail::expected_max_vector_size)->allow_extra_args(false);
    }
    if (key->required && command.action == CommandAction::Add) added->required();
  }

  ExitStatus runOrder() {
    order_.config = arguments_.config;
    return runCommand(order_) == CommandEnd::Done ? ExitStatus::Good : ExitStatus::NotDone;
  }

  // A line each: the command, and its options.
  static std::string commandWords() {
    std::string text;
    for (const Command& command : commands()) {
      text += std::string(command.noun) + ' ' + command.verb;
      for (const KeyOption& option : keyOptions(command)) text += ' ' + option.name;
      if (command.password) text += " --password-file";
      if (command.password && command.action == CommandAction::Set) text += " --ask-password";
      if (command.action == CommandAction::List) text += " --json";
      text += '\n';
    }
    return text;
  }

  std::optional<ExitStatus> done() {
    if (defaults_) return printed(exampleConfiguration());
    if (manual_) return printed(manualPage());
    if (words_) return printed(completionWords());
    if (commandWords_) return printed(commandWords());
    if (app_.count("--explain") > 0) return explain();
    if (arguments_.config.empty()) throw CLI::RequiredError("--config");
    if (order_.command) return runOrder();
    if (checkOnly_) return check();
    if (!printed_.empty()) return print();
    return {};
  }

  static ExitStatus printed(const std::string& text) {
    std::cout << text;
    return ExitStatus::Good;
  }

  ExitStatus explain() const {
    const std::string text = explanationOf(explained_);
    if (!text.empty()) return printed(text);
    std::cerr << "qn-gateway: there is no key or section \"" << explained_ << '"'
              << didYouMeanKey(explained_) << '\n';
    return ExitStatus::BadUsage;
  }

  ExitStatus check() const {
    for (const std::string& line : examineConfiguration(arguments_.config).warnings) {
      std::cerr << "warning: " << line << '\n';
    }
    return printed(arguments_.config.string() + " is valid\n");
  }

  ExitStatus print() const {
    const auto values = configuredValues(arguments_.config, printed_);
    if (!values) {
      const bool secret = !explanationOf(printed_).empty();
      std::cerr << "qn-gateway: \"" << printed_
                << (secret ? "\" is a secret or a section"
                           : "\" is no key" + didYouMeanKey(printed_))
                << '\n';
      return ExitStatus::BadUsage;
    }
    for (const std::string& value : *values) std::cout << value << '\n';
    return ExitStatus::Good;
  }

  Arguments& arguments_;
  CLI::App app_{"KAVRO gateway: one KAVRO server in front of many sub-devices."};
  bool checkOnly_ = false;
  bool defaults_ = false;
  bool manual_ = false;
  bool words_ = false;
  bool commandWords_ = false;
  std::map<std::string, CLI::App*> nouns_;
  CommandOrder order_;
  std::string printed_;
  std::string explained_;
};

}  // namespace

std::optional<ExitStatus> readCommandLine(int argc, char** argv, Arguments& arguments) {
  return CommandLine(arguments).read(argc, argv);
}

}  // namespace qn
