// SPDX-License-Identifier: MIT
#include "QVHostOptions.h"

#include "QVExitStatus.h"
#include "QVHandoff/QVHandoffVersion.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>

namespace {

// Long enough for a probe, a publication and a tabs list on a quiet network.
constexpr double kPeersWait = 5;
constexpr double kPeerWait = 15;

std::chrono::milliseconds milliseconds(double seconds) {
  return std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
}

struct Shared {
  std::string mode;
  std::string level;
  std::vector<std::string> interfaces;
  int verbose = 0;
  int quiet = 0;
};

// On the main command and on each subcommand, so that each one's help shows them and they may come on
// either side of the subcommand's name.
void addSharedOptions(CLI::App& app, QVHostOptions& options, Shared& shared) {
  auto* group = app.add_option_group("Shared options");
  group->add_option("--container", options.container,
                    "the synced folder that holds the shared key (required; default: $QVHANDOFF_CONTAINER)");
  group->add_option("--product-name", options.productName, "the name peers show for this installation")
      ->capture_default_str();
  group->add_option("--port", options.port, "the TCP port to serve on at every start (default: any free one)")
      ->check(CLI::Range(1, 65535));
  group->add_option("--dnssd", shared.mode, "how to reach DNS-SD: auto, daemon or embedded")
      ->check(CLI::IsMember({"auto", "daemon", "embedded"}))
      ->capture_default_str();
  group->add_option("--interface", shared.interfaces, "embedded stack: an interface it may use (repeatable)");
  group->add_option("--host-name", options.dnssd.hostName, "embedded stack: the host name to claim");
  group->add_flag("-v,--verbose", shared.verbose, "log more: info, then debug (repeatable)");
  group->add_flag("-q,--quiet", shared.quiet, "log errors only");
  group->add_option("--log-level", shared.level, "trace, debug, info, warning, error or off")
      ->check(CLI::IsMember({"trace", "debug", "info", "warning", "error", "off"}));
}

std::optional<spdlog::level::level_enum> levelFromFlags(const Shared& shared) {
  if (!shared.level.empty()) return spdlog::level::from_str(shared.level);
  if (shared.quiet > 0) return spdlog::level::err;
  if (shared.verbose > 1) return spdlog::level::debug;
  if (shared.verbose == 1) return spdlog::level::info;
  // The environment speaks for whoever set it; the user at a terminal wants only what went wrong.
  if (std::getenv("QVHANDOFF_LOG_LEVEL")) return std::nullopt;
  return spdlog::level::warn;
}

} // namespace

std::variant<QVHostOptions, int> QVHostOptions::parse(int argc, const char* const* argv) {
  QVHostOptions options;
  if (const char* container = std::getenv("QVHANDOFF_CONTAINER")) options.container = container;
  options.dnssd = QVDNSSDConfiguration::fromEnvironment();
  Shared shared;
  shared.mode = QVDNSSDConfiguration::stringFromMode(options.dnssd.mode);

  CLI::App app{"Hands open documents between installations on one local network.", "qvhandoff"};
  app.set_version_flag("--version", "qvhandoff " QVHANDOFF_VERSION_STRING);
  app.require_subcommand(1);
  app.fallthrough();
  addSharedOptions(app, options, shared);

  double peersWait = kPeersWait;
  double getWait = kPeerWait;
  double copyWait = kPeerWait;
  bool noInput = false;
  bool json = false;
  auto* serve = app.add_subcommand("serve", "run with FILEs open; events on stdout, commands on stdin");
  serve->add_option("FILE", options.files, "documents to open, the first active");
  serve->add_flag("--no-input", noInput, "read no commands; run until SIGTERM, SIGINT or SIGHUP");
  auto* init = app.add_subcommand("init", "make the shared key in the container folder unless it has one");
  auto* peers = app.add_subcommand("peers", "list the peers and their open documents");
  peers->add_option("--wait", peersWait, "seconds to listen")->capture_default_str();
  peers->add_flag("--json", json, "JSON even on a terminal (it is JSON anywhere else)");
  auto* get = app.add_subcommand("get", "hand a peer's document off to this machine; prints the local path");
  get->add_option("DEVICE", options.device, "the peer's name as `peers` lists it")->required();
  get->add_option("PATH", options.path, "the document's path on the peer")->required();
  get->add_option("--wait", getWait, "seconds to wait for the peer to list it")->capture_default_str();
  auto* saveBack = app.add_subcommand("save-back", "send a handed-off copy back to its origin");
  saveBack->add_option("COPY", options.path, "the handed-off copy")->required();
  saveBack->add_option("--wait", copyWait, "seconds to wait for the origin")->capture_default_str();
  auto* markModified = app.add_subcommand(
      "mark-modified", "tell a copy's origin that the copy was edited, so it may ask for it");
  markModified->add_option("COPY", options.path, "the handed-off copy")->required();
  markModified->add_option("--wait", copyWait, "seconds to wait for the origin")->capture_default_str();
  auto* info = app.add_subcommand("info", "print the origin a handed-off copy is tagged with");
  info->add_option("COPY", options.path, "the handed-off copy")->required();
  for (auto* subcommand : {serve, init, peers, get, saveBack, markModified, info})
    addSharedOptions(*subcommand, options, shared);
  app.footer("Exit status: 0 done, 1 other failure, 2 usage, 3 no such peer, 4 not a handed-off copy, "
             "5 transfer failed, 6 no container or shared key, 130 interrupted. See docs/cli.md.");

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    const CLI::App* asked = &app;
    for (auto* subcommand : app.get_subcommands())
      asked = subcommand;
    std::cout << asked->help();
    return QVExitCode(QVExitStatus::Success);
  } catch (const CLI::CallForVersion& version) {
    std::cout << version.what() << '\n';
    return QVExitCode(QVExitStatus::Success);
  } catch (const CLI::CallForAllHelp&) {
    std::cout << app.help("", CLI::AppFormatMode::All);
    return QVExitCode(QVExitStatus::Success);
  } catch (const CLI::ParseError& error) {
    std::fprintf(stderr, "qvhandoff: %s (see qvhandoff --help)\n", error.what());
    return QVExitCode(QVExitStatus::Usage);
  }

  options.dnssd.mode =
      QVDNSSDConfiguration::modeFromString(shared.mode).value_or(QVDNSSDConfiguration::Mode::Auto);
  if (!shared.interfaces.empty()) options.dnssd.interfaces = shared.interfaces;
  options.logLevel = levelFromFlags(shared);
  options.readInput = !noInput;
  if (json) options.json = true;
  if (*serve) {
    options.command = Command::Serve;
  } else if (*init) {
    options.command = Command::Init;
  } else if (*peers) {
    options.command = Command::Peers;
    options.wait = milliseconds(peersWait);
  } else if (*get) {
    options.command = Command::Get;
    options.wait = milliseconds(getWait);
  } else if (*saveBack) {
    options.command = Command::SaveBack;
    options.wait = milliseconds(copyWait);
  } else if (*markModified) {
    options.command = Command::MarkModified;
    options.wait = milliseconds(copyWait);
  } else {
    options.command = Command::Info;
  }
  if (options.command != Command::Info && options.container.empty()) {
    std::fputs("qvhandoff: no container folder: give --container DIR or set QVHANDOFF_CONTAINER\n", stderr);
    return QVExitCode(QVExitStatus::Usage);
  }
  return options;
}
