// `saffra serve`: the local service on the command line. It prints one line,
// "listening on http://HOST:PORT", as soon as it accepts requests (scripts read the port from
// it), and runs until SIGINT or SIGTERM.
#include <signal.h>

#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "cli/commands.h"
#include "saffra/base/environment_helper.h"
#include "saffra/platform/system_info.h"
#include "server/service.h"

namespace saffra::cli {

namespace {

struct ServeOptions {
  std::string host = "127.0.0.1";
  int port = 7600;
  std::string dataFolder = system_info::documentsFolderPath() + "/saffra";
  std::vector<std::string> apiKeys;
};

int runServe(const ServeOptions& options) {
  server::ServiceOptions service;
  service.host = options.host;
  service.port = options.port;
  service.dataFolder = options.dataFolder;
  service.apiKeys = options.apiKeys;
  OptString environmentKey = EnvironmentHelper::environmentVariableForKey("QUORVANT_API_KEY");
  if (environmentKey && !environmentKey->empty()) service.apiKeys.push_back(*environmentKey);
  if (service.apiKeys.empty()) {
    std::cerr << "saffra serve: no API key; pass --api-key KEY or set QUORVANT_API_KEY\n";
    return 2;
  }

  // Block the stop signals before the service starts its threads, so that they inherit the
  // mask and only sigwait() below receives them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  server::Service running(service);
  try {
    running.start();
  } catch (const server::ServiceError& e) {
    std::cerr << "saffra serve: " << e.what() << "\n";
    return 1;
  }
  std::cout << "listening on " << running.url() << std::endl;
  std::cerr << "saffra serve: data in " << options.dataFolder << "\n";

  int signal = 0;
  sigwait(&stopSignals, &signal);
  running.stop();
  return 0;
}

}  // namespace

void addServeCommand(CLI::App& app, int& exitCode) {
  auto options = std::make_shared<ServeOptions>();
  CLI::App* serve = app.add_subcommand("serve", "Run the local visual-testing service");
  serve->add_option("--host", options->host, "Address to listen on")->capture_default_str();
  serve->add_option("--port", options->port, "Port to listen on; 0 picks a free one")
      ->capture_default_str()
      ->check(CLI::Range(0, 65535));
  serve->add_option("--data", options->dataFolder, "Folder of the baselines and results")
      ->capture_default_str();
  serve->add_option("--api-key", options->apiKeys,
                    "An API key that requests may use (repeatable); QUORVANT_API_KEY adds one");
  serve->callback([options, &exitCode] { exitCode = runServe(*options); });
}

}  // namespace saffra::cli
