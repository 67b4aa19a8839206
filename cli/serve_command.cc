// `saffra serve`: the local service on the command line. It prints one line,
// "listening on http://HOST:PORT", as soon as it accepts requests (scripts read the port from
// it), and runs until SIGINT or SIGTERM. With --config FILE it also reads its options from a
// settings file (the packaged service reads /etc/saffra/saffra.conf).
#include <signal.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "cli/commands.h"
#include "cli/config_file.h"
#include "saffra/base/environment_helper.h"
#include "saffra/platform/system_info.h"
#include "server/service.h"
#include "server/webhook_sender.h"

namespace saffra::cli {

namespace {

struct ServeOptions {
  std::string host = "127.0.0.1";
  int port = 7600;
  std::string dataFolder = system_info::documentsFolderPath() + "/saffra";
  std::string database;
  std::vector<std::string> apiKeys;
  double idleTimeoutMinutes = 30;
  std::int64_t keepDays = 0;
  std::int64_t keepVersions = 0;
  std::string configFile;
  std::vector<std::string> webhooks;
  std::vector<std::string> webhookSecrets;
};

/// Pairs the webhook addresses with their secrets: one secret (from --webhook-secret or
/// SAFFRA_WEBHOOK_SECRET) signs for every address, or one secret per address in the same
/// order. Returns the usage error, if any.
std::string pairWebhooks(const ServeOptions& options, std::vector<server::Webhook>& webhooks) {
  std::vector<std::string> secrets = options.webhookSecrets;
  if (secrets.empty()) {
    OptString secret = EnvironmentHelper::environmentVariableForKey("SAFFRA_WEBHOOK_SECRET");
    if (secret && !secret->empty()) secrets.push_back(*secret);
  }
  if (options.webhooks.empty()) {
    return options.webhookSecrets.empty() ? "" : "--webhook-secret is given without --webhook";
  }
  if (secrets.empty()) {
    return "a webhook needs a secret; pass --webhook-secret SECRET or set SAFFRA_WEBHOOK_SECRET";
  }
  if (secrets.size() != 1 && secrets.size() != options.webhooks.size()) {
    return "give one --webhook-secret for all webhooks or one per --webhook, in the same order (" +
           std::to_string(options.webhooks.size()) + " webhooks, " +
           std::to_string(secrets.size()) + " secrets)";
  }
  for (std::size_t i = 0; i < options.webhooks.size(); ++i) {
    webhooks.push_back({options.webhooks[i], secrets.size() == 1 ? secrets[0] : secrets[i]});
  }
  try {
    server::WebhookSender::validate(webhooks);
  } catch (const server::ServiceError& e) {
    return std::string("--webhook: ") + e.what();
  }
  return "";
}

int runServe(const ServeOptions& options) {
  server::ServiceOptions service;
  service.host = options.host;
  service.port = options.port;
  service.dataFolder = options.dataFolder;
  service.database = options.database;
  if (service.database.empty()) {
    service.database = EnvironmentHelper::environmentVariableForKey("SAFFRA_DATABASE").value_or("");
  }
  service.apiKeys = options.apiKeys;
  service.idleSessionTimeout = std::chrono::milliseconds(
      static_cast<std::int64_t>(std::llround(options.idleTimeoutMinutes * 60 * 1000)));
  service.keepDays = options.keepDays;
  service.keepVersions = options.keepVersions;
  OptString environmentKey = EnvironmentHelper::environmentVariableForKey("QUORVANT_API_KEY");
  if (environmentKey && !environmentKey->empty()) service.apiKeys.push_back(*environmentKey);
  if (std::string error = pairWebhooks(options, service.webhooks); !error.empty()) {
    std::cerr << "saffra serve: " << error << "\n";
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
    const bool noKey = e.reason() == server::ServiceError::Reason::Settings &&
                       std::string(e.what()).find("API key") != std::string::npos;
    std::cerr << "saffra serve: " << e.what()
              << (noKey
                      ? "; pass --api-key KEY, set QUORVANT_API_KEY or add one with saffra keys add"
                      : "")
              << "\n";
    switch (e.reason()) {
      case server::ServiceError::Reason::BadAddress:
      case server::ServiceError::Reason::Settings:
        return 2;
      case server::ServiceError::Reason::Unreachable:
        return 3;
      case server::ServiceError::Reason::Other:
        break;
    }
    return 1;
  }
  std::cout << "listening on " << running.url() << std::endl;
  if (service.database.empty()) {
    std::cerr << "saffra serve: data in " << options.dataFolder << "\n";
  } else {
    std::cerr << "saffra serve: data in the PostgreSQL database given\n";
  }

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
  serve->add_option("--database", options->database,
                    "A PostgreSQL address (postgresql://...) to keep the data in instead of "
                    "--data, shared by every service given it; SAFFRA_DATABASE sets it too");
  serve->add_option("--api-key", options->apiKeys,
                    "An API key that requests may use (repeatable); QUORVANT_API_KEY adds one, and "
                    "keys added with saffra keys add work too");
  serve
      ->add_option("--idle-timeout", options->idleTimeoutMinutes,
                   "Minutes without a request after which a running session is aborted "
                   "(also sessions an earlier run left running); 0 never aborts")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 525600.0));
  serve
      ->add_option("--keep-days", options->keepDays,
                   "Remove stopped sessions and old baseline versions after this many days, and "
                   "images nothing refers to any more; 0 keeps everything")
      ->capture_default_str()
      ->check(CLI::Range(std::int64_t{0}, std::int64_t{36500}));
  serve
      ->add_option("--keep-versions", options->keepVersions,
                   "Keep at most this many versions of each baseline (the current one and those "
                   "a kept session used always stay); 0 keeps all")
      ->capture_default_str()
      ->check(CLI::Range(std::int64_t{0}, std::int64_t{1000000}));
  serve->add_option("--webhook", options->webhooks,
                    "POST a signed JSON event to this http(s) address when a session or batch "
                    "ends and when a reviewer decides (repeatable)");
  serve->add_option("--webhook-secret", options->webhookSecrets,
                    "The HMAC-SHA256 key of the webhooks' X-Saffra-Signature: once for all "
                    "webhooks, or once per --webhook in the same order; SAFFRA_WEBHOOK_SECRET "
                    "gives the one for all");
  serve
      ->add_option("--config", options->configFile,
                   "A settings file of \"name = value\" lines named after these long options "
                   "(port = 7600); options on the command line override it")
      ->configurable(false);
  serve->callback([options, serve, &exitCode] {
    if (!options->configFile.empty()) {
      if (auto error = applyConfigFile(*serve, options->configFile)) {
        std::cerr << "saffra serve: " << *error << "\n";
        exitCode = 2;
        return;
      }
    }
    exitCode = runServe(*options);
  });
}

}  // namespace saffra::cli
