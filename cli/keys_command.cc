// `saffra keys`: the API keys kept in the service's store, which every service on that store
// accepts. A key's text is printed once, when it is made; the store keeps only its SHA-256.
#include <cstdint>
#include <ctime>
#include <iostream>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/commands.h"
#include "saffra/base/environment_helper.h"
#include "saffra/platform/system_info.h"
#include "server/clock.h"
#include "server/store.h"
#include "server/web_access.h"

namespace saffra::cli {

namespace {

struct KeysOptions {
  std::string dataFolder = system_info::documentsFolderPath() + "/saffra";
  std::string database;
  std::string name;
};

std::string dateOf(std::int64_t seconds) {
  const std::time_t at = static_cast<std::time_t>(seconds);
  std::tm utc{};
  gmtime_r(&at, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &utc);
  return text;
}

// Runs `work` on the open store; a store that cannot be opened or written is exit code 3.
template <class Work>
int withStore(const KeysOptions& options, Work work) {
  std::string database = options.database;
  if (database.empty()) {
    database = EnvironmentHelper::environmentVariableForKey("SAFFRA_DATABASE").value_or("");
  }
  if (!database.empty() && !server::isDatabaseAddress(database)) {
    std::cerr << "saffra keys: the database address must start with postgresql://\n";
    return 2;
  }
  try {
    std::unique_ptr<server::Store> store =
        server::openStore(database.empty() ? options.dataFolder : database);
    return work(*store);
  } catch (const server::StoreAddressError& e) {
    std::cerr << "saffra keys: " << e.what() << "\n";
    return 2;
  } catch (const server::StoreError& e) {
    std::cerr << "saffra keys: cannot use the store"
              << (database.empty() ? " in " + options.dataFolder : std::string()) << ": "
              << e.what() << "\n";
    return 3;
  }
}

int addKey(const KeysOptions& options) {
  if (options.name.empty() || options.name.size() > 200) {
    std::cerr << "saffra keys add: a key needs a name of 1 to 200 characters\n";
    return 2;
  }
  return withStore(options, [&](server::Store& store) {
    const std::string key = server::randomToken();
    if (!store.addApiKey(options.name, server::sha256Hex(key), server::now())) {
      std::cerr << "saffra keys add: a key named \"" << options.name
                << "\" is in use; revoke it first or choose another name\n";
      return 1;
    }
    std::cerr << "saffra keys add: the key \"" << options.name
              << "\" is below; it is shown only now\n";
    std::cout << key << std::endl;
    return 0;
  });
}

int listKeys(const KeysOptions& options) {
  return withStore(options, [&](server::Store& store) {
    for (const server::ApiKeyRecord& key : store.apiKeys()) {
      std::cout << key.name << "\tmade " << dateOf(key.createdAt) << "\t"
                << (key.revokedAt ? "revoked " + dateOf(*key.revokedAt) : std::string("in use"))
                << "\n";
    }
    return 0;
  });
}

int revokeKey(const KeysOptions& options) {
  return withStore(options, [&](server::Store& store) {
    if (!store.revokeApiKey(options.name, server::now())) {
      std::cerr << "saffra keys revoke: no key named \"" << options.name << "\" is in use\n";
      return 1;
    }
    std::cerr << "saffra keys revoke: \"" << options.name
              << "\" is revoked; services stop accepting it within seconds\n";
    return 0;
  });
}

}  // namespace

void addKeysCommand(CLI::App& app, int& exitCode) {
  auto options = std::make_shared<KeysOptions>();
  CLI::App* keys =
      app.add_subcommand("keys", "Add, list and revoke the API keys kept in the service's store");
  keys->require_subcommand(1);
  keys->add_option("--data", options->dataFolder, "Folder of the service's baselines and results")
      ->capture_default_str();
  keys->add_option("--database", options->database,
                   "The service's PostgreSQL database (postgresql://...; default: "
                   "SAFFRA_DATABASE), instead of --data");
  CLI::App* add = keys->add_subcommand("add", "Make a key and print it (only this once)");
  add->add_option("name", options->name, "A name for the key, such as the CI job using it")
      ->required();
  add->callback([options, &exitCode] { exitCode = addKey(*options); });
  CLI::App* list = keys->add_subcommand("list", "List the keys: names, dates, in use or revoked");
  list->callback([options, &exitCode] { exitCode = listKeys(*options); });
  CLI::App* revoke = keys->add_subcommand("revoke", "Revoke the key of this name");
  revoke->add_option("name", options->name, "The key's name")->required();
  revoke->callback([options, &exitCode] { exitCode = revokeKey(*options); });
  // --data may come after the subcommand too.
  for (CLI::App* sub : {add, list, revoke}) sub->fallthrough();
}

}  // namespace saffra::cli
