// `saffra migrate`: copies an embedded store (a data folder) into a PostgreSQL database, for a
// team moving its service onto one database. Running it again copies only what is missing.
#include <chrono>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/commands.h"
#include "server/store.h"

namespace saffra::cli {

namespace {

struct MigrateOptions {
  std::string from;
  std::string to;
};

int runMigrate(const MigrateOptions& options) {
  if (!server::isDatabaseAddress(options.to)) {
    std::cerr << "saffra migrate: --to must be a PostgreSQL address (postgresql://...)\n";
    return 2;
  }
  if (!std::filesystem::exists(std::filesystem::path(options.from) / "saffra.db")) {
    std::cerr << "saffra migrate: " << options.from << " is not a data folder of saffra serve\n";
    return 2;
  }
  const auto started = std::chrono::steady_clock::now();
  std::unique_ptr<server::Store> from, to;
  try {
    from = server::openStore(options.from);
  } catch (const server::StoreError& e) {
    std::cerr << "saffra migrate: cannot open " << options.from << ": " << e.what() << "\n";
    return 3;
  }
  // The copy can be run again: whatever stopped it, what was copied stays and is not copied twice.
  try {
    to = server::openStore(options.to);
    server::MigrationReport report =
        from->copyInto(*to, [](const std::string& line) { std::cout << line << std::endl; });
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    std::int64_t rows = 0, added = 0;
    for (const auto& table : report.tables) {
      rows += table.source;
      added += table.added;
    }
    std::cout << "copied " << added << " of " << rows << " rows and " << report.imagesAdded
              << " of " << report.images << " images in " << seconds
              << " s; counts and image hashes verified\n";
    return 0;
  } catch (const server::StoreAddressError& e) {
    std::cerr << "saffra migrate: " << e.what() << "\n";
    return 2;
  } catch (const server::StoreUnavailable& e) {
    std::cerr << "saffra migrate: " << e.what() << (to ? "; run it again to complete the copy" : "")
              << "\n";
    return 3;
  } catch (const server::StoreError& e) {
    std::cerr << "saffra migrate: " << e.what() << "\n";
    return 1;
  }
}

}  // namespace

void addMigrateCommand(CLI::App& app, int& exitCode) {
  auto options = std::make_shared<MigrateOptions>();
  CLI::App* migrate = app.add_subcommand(
      "migrate", "Copy a data folder into a PostgreSQL database (again: copies what is missing)");
  migrate->add_option("--from", options->from, "The data folder of saffra serve")->required();
  migrate->add_option("--to", options->to, "The PostgreSQL database (postgresql://...)")
      ->required();
  migrate->callback([options, &exitCode] { exitCode = runMigrate(*options); });
}

}  // namespace saffra::cli
