// `saffra migrate` as a team moving onto PostgreSQL runs it: a data folder that the demo's first
// run of `saffra check` filled is copied into a database, copied again without duplicating
// anything, and the demo's next runs then pass, and find the changed icon, against services on
// that database, with the keys of the folder.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "saffra/platform/uuid.h"
#include "testing/child_process.h"
#include "testing/postgres_server.h"

namespace saffra {
namespace {

namespace fs = std::filesystem;
using testing::ChildProcess;
using testing::startServe;

const std::string kCommand = std::string(SAFFRA_BINARY_DIR) + "/saffra";

struct Outcome {
  int exitCode;
  std::string output;
};

Outcome run(std::vector<std::string> args, std::vector<std::string> environment = {}) {
  ChildProcess child(kCommand, std::move(args), std::move(environment));
  std::string output = child.readAll();
  return {child.wait(), output};
}

TEST(MigrateCommandTest, TheDemosDataCopiedIntoPostgreSQLPassesItsNextRunsThere) {
  testing::PostgresServer* server = nullptr;
  try {
    server = &testing::PostgresServer::shared();
  } catch (const std::exception& e) {
    GTEST_FAIL() << e.what();
  }
  const fs::path folder = fs::temp_directory_path() / ("saffra-migrate-" + newUUIDString());
  const fs::path images = fs::path(SAFFRA_SOURCE_DIR) / "examples" / "images";
  // The demo's runs: its three help-page images, or the same with the icon recoloured.
  auto check = [&](const std::string& url, const std::string& key, bool changedIcon = false) {
    return run(
        {"check", "--app", "Saffra demo", "--test", "Help pages", "--batch", "Demo", "--timeout",
         "20", (images / "docs-header.png").string(), (images / "help-topics.png").string(),
         (images / (changedIcon ? "changed/icon-tile.png" : "icon-tile.png")).string()},
        {"QUORVANT_API_KEY=" + key, "QUORVANT_SERVER_URL=" + url});
  };
  Outcome added = run({"keys", "add", "ci", "--data", (folder / "data").string()});
  ASSERT_EQ(added.exitCode, 0) << added.output;
  std::smatch shown;
  ASSERT_TRUE(std::regex_search(added.output, shown, std::regex("(^|\n)([0-9a-f]{64})\n")));
  const std::string key = shown[2];
  {
    auto serve = startServe(kCommand, folder / "data");
    Outcome first = check(serve.url, key);
    ASSERT_EQ(first.exitCode, 0) << first.output;  // a new baseline, saved
    EXPECT_EQ(serve.process->stop(SIGTERM), 0);
  }

  const std::string database = server->createDatabase();
  const std::vector<std::string> migrate = {"migrate", "--from", (folder / "data").string(), "--to",
                                            database};
  Outcome copied = run(migrate);
  ASSERT_EQ(copied.exitCode, 0) << copied.output;
  EXPECT_NE(copied.output.find("sessions: 1 rows, 1 copied now"), std::string::npos)
      << copied.output;
  EXPECT_NE(copied.output.find("counts and image hashes verified"), std::string::npos);
  Outcome again = run(migrate);
  ASSERT_EQ(again.exitCode, 0) << again.output;
  EXPECT_NE(again.output.find("copied 0 of"), std::string::npos) << again.output;
  EXPECT_NE(again.output.find("and 0 of 3 images"), std::string::npos) << again.output;

  // Two services on the database, without --api-key: the folder's key and baseline came along.
  for (int i = 0; i < 2; ++i) {
    ChildProcess serve(kCommand, {"serve", "--port", "0", "--database", database}, {});
    std::smatch m;
    const std::string line = serve.readLine();
    ASSERT_TRUE(std::regex_match(line, m, std::regex("listening on (http://127\\.0\\.0\\.1:\\d+)")))
        << line;
    Outcome rerun = check(m[1], key);
    EXPECT_EQ(rerun.exitCode, 0) << rerun.output;
    EXPECT_EQ(rerun.output.find("NEW BASELINE"), std::string::npos) << rerun.output;
    Outcome changed = check(m[1], key, true);
    EXPECT_EQ(changed.exitCode, 1) << changed.output;
    EXPECT_EQ(serve.stop(SIGTERM), 0);
  }

  // Another folder is not poured into a database that holds this one; bad addresses are usage
  // errors.
  const fs::path other = folder / "other";
  ASSERT_EQ(run({"keys", "add", "x", "--data", other.string()}).exitCode, 0);
  auto serve = startServe(kCommand, other, {"--api-key", "k"});
  ASSERT_EQ(check(serve.url, "k").exitCode, 0);
  EXPECT_EQ(serve.process->stop(SIGTERM), 0);
  Outcome refused = run({"migrate", "--from", other.string(), "--to", database});
  EXPECT_EQ(refused.exitCode, 1) << refused.output;
  EXPECT_NE(refused.output.find("another store"), std::string::npos) << refused.output;
  for (const auto& [from, to] :
       {std::pair{other.string(), std::string("mysql://x/y")}, {images.string(), database}}) {
    EXPECT_EQ(run({"migrate", "--from", from, "--to", to}).exitCode, 2) << from << " " << to;
  }
  fs::remove_all(folder);
}

}  // namespace
}  // namespace saffra
