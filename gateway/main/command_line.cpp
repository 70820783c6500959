// See command_line.h.
#include "gateway/main/command_line.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <string>

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
    app_.footer("Ends with 0, or 1: configuration, 2: command line, 3: the gateway did not start.");
  }

  std::optional<ExitStatus> read(int argc, char** argv) try {
    app_.parse(argc, argv);
    return done();
  } catch (const CLI::ParseError& error) {
    return app_.exit(error) == 0 ? ExitStatus::Good : ExitStatus::BadUsage;
  }

 private:
  std::optional<ExitStatus> done() {
    if (defaults_) return printed(exampleConfiguration());
    if (manual_) return printed(manualPage());
    if (words_) return printed(completionWords());
    if (app_.count("--explain") > 0) return explain();
    if (arguments_.config.empty()) throw CLI::RequiredError("--config");
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
  std::string printed_;
  std::string explained_;
};

}  // namespace

std::optional<ExitStatus> readCommandLine(int argc, char** argv, Arguments& arguments) {
  return CommandLine(arguments).read(argc, argv);
}

}  // namespace qn
