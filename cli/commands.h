// The subcommands of the saffra command. Each adds itself to the application and, when it is
// the one chosen, runs from its callback and stores the process exit code.
#pragma once

namespace CLI {
class App;
}

namespace saffra::cli {

/// `saffra serve`: runs the local service until interrupted.
void addServeCommand(CLI::App& app, int& exitCode);

/// `saffra keys add NAME | list | revoke NAME`: the API keys kept in the store; exit code 0
/// done, 1 a name in use or unknown, 2 usage error, 3 the store cannot be used.
void addKeysCommand(CLI::App& app, int& exitCode);

/// `saffra migrate --from DATA_DIR --to postgresql://...`: exit code 0 copied and verified, 1
/// refused or not verified, 2 usage error, 3 a store cannot be reached.
void addMigrateCommand(CLI::App& app, int& exitCode);

/// `saffra check`: runs one test with one check per PNG file; exit code 0 passed, 1 unresolved
/// or failed, 2 usage error, 3 service unavailable, 4 the --junit report could not be written.
void addCheckCommand(CLI::App& app, int& exitCode);

}  // namespace saffra::cli
