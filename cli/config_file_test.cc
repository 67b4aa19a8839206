// Settings files: values reach the options they name as if given on the command line, the
// command line wins, and every kind of bad line is refused with its file and line number.
#include "cli/config_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "saffra/platform/uuid.h"

namespace saffra::cli {
namespace {

namespace fs = std::filesystem;

// A command shaped like `saffra serve`: a checked number, a text, a repeatable text, a flag and
// the non-configurable --config itself.
struct Command {
  CLI::App app{"test", "serve"};
  int port = 7600;
  std::string data = "default";
  std::vector<std::string> keys;
  bool verbose = false;
  std::string config;

  Command() {
    app.add_option("--port", port)->check(CLI::Range(0, 65535));
    app.add_option("--data", data);
    app.add_option("--api-key", keys);
    app.add_flag("--verbose", verbose);
    app.add_option("--config", config)->configurable(false);
  }
};

TEST(ConfigFileTest, SetsTheNamedOptionsAndLeavesThoseOfTheCommandLine) {
  const std::string text =
      "\xEF\xBB\xBF# settings\r\n"
      "\n"
      "  port = 8080   # inline comment\r\n"
      "data = \"/var/lib/a b#c\"  # quoted: blanks and # kept\n"
      "api-key = k1\n"
      "api-key = k#2\n"  // a # inside a word is part of it
      "verbose = true";  // no final line break
  Command fromFile;
  fromFile.app.parse("", false);
  ASSERT_EQ(applyConfigText(fromFile.app, text, "s.conf"), std::nullopt);
  EXPECT_EQ(fromFile.port, 8080);
  EXPECT_EQ(fromFile.data, "/var/lib/a b#c");
  EXPECT_EQ(fromFile.keys, (std::vector<std::string>{"k1", "k#2"}));
  EXPECT_TRUE(fromFile.verbose);

  // Options given on the command line keep their values, including repeatable ones; the file
  // still fills the others.
  Command overridden;
  overridden.app.parse("--port 9 --api-key cli", false);
  ASSERT_EQ(applyConfigText(overridden.app, text, "s.conf"), std::nullopt);
  EXPECT_EQ(overridden.port, 9);
  EXPECT_EQ(overridden.keys, std::vector<std::string>{"cli"});
  EXPECT_EQ(overridden.data, "/var/lib/a b#c");
}

TEST(ConfigFileTest, RefusesBadLinesNamingFileAndLine) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"port = 1\nprot = 2", "s.conf:2: unknown setting \"prot\""},
      {"# only the long names\np = 1", "s.conf:2: unknown setting \"p\""},
      {"--port = 1", "s.conf:1: unknown setting \"--port\""},
      {"po rt = 1", "s.conf:1: \"po rt\" is not a setting name"},
      {"[serve]", "s.conf:1: expected \"name = value\""},
      {"= 8080", "s.conf:1: expected a name"},
      {"\n\napi-key =   # fill in", "s.conf:3: \"api-key\" has no value"},
      {"data = \"/x", "s.conf:1: the value of \"data\" has no closing quote"},
      {"data = \"/x\" y", "s.conf:1: unexpected text after the quoted value"},
      {"port = 80x", "s.conf:1: bad value for \"port\""},
      {"port = 1\nport = 2", "s.conf:2: \"port\" is set already, on line 1"},
      {"verbose = maybe", "s.conf:1: bad value for \"verbose\""},
      {"config = other.conf", "s.conf:1: \"config\" cannot be set in a settings file"},
      {"help = true", "s.conf:1: \"help\" cannot be set in a settings file"},
  };
  for (const auto& [text, expected] : cases) {
    Command command;
    command.app.parse("", false);
    const auto error = applyConfigText(command.app, text, "s.conf");
    ASSERT_TRUE(error.has_value()) << text;
    EXPECT_EQ(error->rfind(expected, 0), 0u) << text << " gave " << *error;
  }
}

TEST(ConfigFileTest, RefusesFilesThatCannotBeSettings) {
  const fs::path folder = fs::temp_directory_path() / ("saffra-config-" + newUUIDString());
  fs::create_directories(folder);
  const fs::path big = folder / "big.conf";
  std::ofstream(big) << std::string(2 << 20, '#');
  for (const auto& [path, expected] :
       {std::pair{(folder / "missing.conf").string(), "No such file"},
        {folder.string(), "it is a folder"},
        {big.string(), "larger than 1 MB"}}) {
    Command command;
    command.app.parse("", false);
    const auto error = applyConfigFile(command.app, path);
    ASSERT_TRUE(error.has_value()) << path;
    EXPECT_NE(error->find(path), std::string::npos) << *error;
    EXPECT_NE(error->find(expected), std::string::npos) << *error;
  }
  fs::remove_all(folder);
}

}  // namespace
}  // namespace saffra::cli
