// The commands' file: what they change in its text, that it is replaced as a whole, and how it
// stands to the file that includes it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "gateway/accounts/accounts_file.h"
#include "gateway/accounts/entry_text.h"
#include "gateway/config/configuration_file.h"
#include "tests/contract/folder.h"

namespace qn {
namespace {

constexpr EntryName kA{"users", "name", "a"};
constexpr EntryName kB{"users", "name", "b\u00e9"};

const char kText[] =
    "# top\r\n"
    "\n"
    "# first\n"
    "[[users]]  # of the door\n"
    "device = '1' # own\n"
    "\tname =\"a\" # \u00e9 \n"
    "devices = [ \"2\",\n"
    "   \"3\" ] # both\n"
    "# below\n"
    "\n"
    "[[devices]]\n"
    "http_port = 0x1f90\n"
    "index = \"1\"\n"
    "\n"
    "[[users]]\n"
    "name = \"b\u00e9\"";

std::string replaced(std::string text, std::string_view from, std::string_view to) {
  return text.replace(text.find(from), from.size(), to);
}

TEST(EntryText, ChangesWhatIsAskedAndNoOtherByte) {
  const std::string text = kText;
  const EntryName device{"devices", "index", "1"};
  const std::pair<std::string, std::string> cases[] = {
      // what it is, what it should be
      {withChanged(text, kA, {{"device", "\"9\""}}), replaced(text, "'1'", "\"9\"") + "\n"},
      {withChanged(text, kA, {{"devices", "[]"}}),
       replaced(text, "[ \"2\",\n   \"3\" ]", "[]") + "\n"},
      {withChanged(text, kA, {{"devices", {}}}),
       replaced(text, "devices = [ \"2\",\n   \"3\" ] # both\n", "") + "\n"},
      {withChanged(text, kA, {{"x", "1"}, {"device", "\"\u00e9\""}, {"y", "true"}, {"z", {}}}),
       replaced(replaced(text, "'1'", "\"\u00e9\""), "both\n", "both\nx = 1\ny = true\n") + "\n"},
      {withChanged(text, kB, {{"x", "1"}}), text + "\nx = 1\n"},
      {withChanged(text, device, {{"http_port", "1"}}), replaced(text, "0x1f90", "1") + "\n"},
      {withEntry(text, {"users", "name", "c\""}, {{"x", "1"}, {"y", {}}}),
       text + "\n\n[[users]]\nname = \"c\\\"\"\nx = 1\n"},
      {withEntry("", kA, {}), "[[users]]\nname = \"a\"\n"},
      {withoutEntry(text, kB), text.substr(0, text.find("\n[[users]]\nname"))},
      {withoutEntry(text, device),
       replaced(text, "[[devices]]\nhttp_port = 0x1f90\nindex = \"1\"\n\n", "")},
      {withoutEntry(text, kA),
       text.substr(0, text.find("[[users]]")) + text.substr(text.find("# below"))},
      {withoutEntry("[[users]]\nname = \"a\"\n", kA), ""},
  };
  for (const auto& [is, should] : cases) EXPECT_EQ(is, should);
}

TEST(EntryText, RefusesWhatItCannotChangeAlone) {
  const std::pair<std::string, std::string> cases[] = {
      {"[[users]]\nname = \"b\"\n", "there is no \"a\""},
      {"users = [ {name = \"a\"}, {name = \"b\"} ]\n", "line 1: an inline table"},
      {"[[users]]\nname = \"a\"\nx.y = 1\n", "cannot be changed safely"},
      {"[[users]\nname = 1\n", ":1"},
  };
  for (const auto& [text, why] : cases) {
    for (const bool gone : {true, false}) {
      try {
        const std::string now = gone ? withoutEntry(text, kA) : withChanged(text, kA, {{"x", "1"}});
        EXPECT_TRUE(gone && text.find("x.y") != text.npos) << text << "-> " << now;
      } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find(why), std::string::npos) << error.what();
      }
    }
  }
  EXPECT_THROW(withEntry("users = 1\n", kA, {}), std::runtime_error);
}

std::string contentOf(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

// Runs it in a process that is killed at its n-th system call or return of one; whether it was.
bool isKilledAt(int steps, const std::function<void()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    work();
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  for (int step = 0; step < steps; ++step) {
    ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    waitpid(child, &status, 0);
    if (WIFEXITED(status)) return false;
  }
  kill(child, SIGKILL);
  waitpid(child, &status, 0);
  return true;
}

TEST(AccountsFile, AKillAtAnyStepLeavesTheOldOrTheNewFile) {
  const Folder folder;
  const auto file = folder.write("accounts.toml", "old");
  chmod(file.c_str(), 0640);
  const std::string fresh(10000, 'n');
  int olds = 0;
  int news = 0;
  for (int steps = 1; steps < 1000; ++steps) {
    const bool killed = isKilledAt(steps, [&] { AccountsFile(file, file).replace(fresh); });
    const std::string content = contentOf(file);
    ASSERT_TRUE(content == "old" || content == fresh) << steps;
    struct stat facts {};
    ASSERT_EQ(stat(file.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 0777, 0640U);
    ++(content == "old" ? olds : news);
    folder.write("accounts.toml", "old");
    if (killed) continue;
    EXPECT_EQ(content, fresh);
    EXPECT_FALSE(exists(folder.path() / "accounts.toml.new"));
    break;
  }
  EXPECT_GT(olds, 10) << "it was killed before the new one stood";
  EXPECT_GT(news, 2) << "and afterwards";
}

TEST(AccountsFile, OneAfterTheOtherLosesNothing) {
  const Folder folder;
  const auto config = folder.write("gateway.toml", "");
  const auto link = folder.path() / "link.toml";
  std::filesystem::create_symlink("accounts.toml", link);
  EXPECT_THROW(AccountsFile(link, config), std::runtime_error) << "a link to nothing";
  folder.write("accounts.toml", "");
  std::vector<std::thread> commands;
  for (int i = 0; i < 8; ++i) {
    commands.emplace_back([&, i, name = "user" + std::to_string(i)] {
      AccountsFile file(i % 2 == 0 ? link : folder.path() / "accounts.toml", config);
      file.replace(withEntry(file.content(), {"users", "name", name}, {}));
    });
  }
  for (std::thread& each : commands) each.join();
  const std::string text = contentOf(folder.path() / "accounts.toml");
  for (int i = 0; i < 8; ++i) {
    const std::string name = "user" + std::to_string(i);
    EXPECT_TRUE(hasEntry(text, {"users", "name", name})) << name;
  }
  EXPECT_TRUE(is_symlink(link));
}

TEST(AccountsFile, AnEmptyOneThatWasMadeForNothingGoes) {
  const Folder folder;
  const auto config = folder.write("gateway.toml", "");
  { const AccountsFile file(folder.path() / "accounts.toml", config); }
  EXPECT_FALSE(exists(folder.path() / "accounts.toml"));
}

TEST(Include, UsersAndDevicesOfAllFilesAreOneConfiguration) {
  const Folder folder;
  std::filesystem::create_directory(folder.path() / "more");
  folder.write("pw", "outer");
  folder.write("more/pw", "inner");
  folder.write("more/a.toml", "[[users]]\nname = \"b\"\ndevice = \"1\"\npassword_file = \"pw\"\n");
  folder.write("b.toml", "[[devices]]\nindex = \"1\"\nurl = \"http://h\"\n");
  const auto file = folder.write("gateway.toml",
                                 "include = [\"more/a.toml\", \"b.toml\"]\n[[users]]\n"
                                 "name = \"admin\"\ndevice = \"1\"\npassword_file = \"pw\"\n");
  const Configuration read = readConfiguration(file);
  ASSERT_EQ(read.users.size(), 2U);
  const auto ha1 = [](const char* name, const char* password) {
    return std::string(hexDigest(DigestAlgorithm::MD5, {name, "KAVRO", password}).text());
  };
  EXPECT_EQ(read.users[0].ha1, ha1("admin", "outer"));
  EXPECT_EQ(read.users[1].ha1, ha1("b", "inner")) << "relative to its own file";
  EXPECT_NE(read.findDevice("1"), nullptr);
  EXPECT_EQ(configuredValues(file, "include")->front(), "[\"more/a.toml\", \"b.toml\"]");
}

TEST(Include, ErrorsNameTheFileAndTheLine) {
  const std::string user = "[[users]]\nname = \"a\"\ndevice = \"1\"\npassword = \"p\"\n";
  const std::string include = "include = [\"a.toml\"]\n";
  struct Case {
    std::string outer;
    std::string inner;
    std::string error;
  };
  std::string many;
  for (int i = 0; i < 17; ++i) many += "\"a.toml\", ";
  const Case cases[] = {
      {include, "[[users]]\nname = 1\n", "/a.toml:2:8: users.name: expected a string"},
      {include, "\n[[devices]\n", "/a.toml:2:"},
      {include, "x = \"\"\"\n", "/a.toml:1: expected strings of one line"},
      {include, "[http]\nport = 1\n", "/a.toml:1:2: http: an included file has [[users]] and"},
      {include, "include = []\n", "/a.toml:1:1: include: an included file has"},
      {include + user, "\n" + user,
       "/a.toml:3:8: users.name: expected a value that is not taken, as users.name in line 3 of "},
      {"include = [\"b.toml\"]\n", "", "gateway.toml:1:11: include: "},
      {"include = [\"/dev/zero\"]\n", "", "/dev/zero: expected a file"},
      {"include = \"a.toml\"\n", "", "gateway.toml:1:11: include: expected a list of strings"},
      {"include = [" + many + "]\n", "", "include: expected at most 16 files"},
      {"[http]\ninclude = []\n", "", ":2:1: http.include: unknown key"},
      {include, std::string(kConfigurationFileBytes + 1, '\n'),
       "/a.toml: expected at most 4194304"},
  };
  for (const Case& c : cases) {
    const Folder folder;
    folder.write("a.toml", c.inner);
    try {
      readConfiguration(folder.write("gateway.toml", c.outer));
      ADD_FAILURE() << c.outer << c.inner;
    } catch (const ConfigurationError& error) {
      EXPECT_NE(std::string(error.what()).find(c.error), std::string::npos) << error.what();
    }
  }
}

}  // namespace
}  // namespace qn
