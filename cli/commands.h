// The subcommands of the saffra command. Each adds itself to the application and, when it is
// the one chosen, runs from its callback and stores the process exit code.
#pragma once

namespace CLI {
class App;
}

namespace saffra::cli {

/// `saffra serve`: runs the local service until interrupted.
void addServeCommand(CLI::App& app, int& exitCode);

}  // namespace saffra::cli
