#include "QVHostOptions.h"

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

} // namespace

std::variant<QVHostOptions, int> QVHostOptions::parse(int argc, const char* const* argv) {
  QVHostOptions options;
  if (const char* container = std::getenv("QVHANDOFF_CONTAINER")) options.container = container;
  options.dnssd = QVDNSSDConfiguration::fromEnvironment();

  CLI::App app{"Hands open documents between installations on one local network.", "qvhandoff"};
  app.set_version_flag("--version", "qvhandoff " QVHANDOFF_VERSION_STRING);
  app.require_subcommand(1);
  app.fallthrough();
  std::string mode = QVDNSSDConfiguration::stringFromMode(options.dnssd.mode);
  std::string level;
  std::vector<std::string> interfaces;
  app.add_option("--container", options.container,
                 "the synced folder that holds the shared key (default: $QVHANDOFF_CONTAINER)");
  app.add_option("--product-name", options.productName, "the name peers show for this installation")
      ->capture_default_str();
  app.add_option("--dnssd", mode, "how to reach DNS-SD")
      ->check(CLI::IsMember({"auto", "daemon", "embedded"}))
      ->capture_default_str();
  app.add_option("--interface", interfaces, "embedded stack: an interface it may use (repeatable)");
  app.add_option("--host-name", options.dnssd.hostName, "embedded stack: the host name to claim");
  app.add_option("--log-level", level, "trace, debug, info, warning, error or off")
      ->check(CLI::IsMember({"trace", "debug", "info", "warning", "error", "off"}));

  double peersWait = kPeersWait;
  double getWait = kPeerWait;
  double saveBackWait = kPeerWait;
  auto* serve = app.add_subcommand("serve", "run with FILEs open; events on stdout, commands on stdin");
  serve->add_option("FILE", options.files, "documents to open, the first active");
  auto* peers = app.add_subcommand("peers", "list the peers and their open documents as JSON");
  peers->add_option("--wait", peersWait, "seconds to listen")->capture_default_str();
  auto* get = app.add_subcommand("get", "hand a peer's document off to this machine; prints the local path");
  get->add_option("DEVICE", options.device, "the peer's name as `peers` lists it")->required();
  get->add_option("PATH", options.path, "the document's path on the peer")->required();
  get->add_option("--wait", getWait, "seconds to wait for the peer to list it")->capture_default_str();
  auto* saveBack = app.add_subcommand("save-back", "send a handed-off copy back to its origin");
  saveBack->add_option("COPY", options.path, "the handed-off copy")->required();
  saveBack->add_option("--wait", saveBackWait, "seconds to wait for the origin")->capture_default_str();
  auto* info = app.add_subcommand("info", "print the origin a handed-off copy is tagged with");
  info->add_option("COPY", options.path, "the handed-off copy")->required();

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::cout << app.help();
    return 0;
  } catch (const CLI::CallForVersion& version) {
    std::cout << version.what() << '\n';
    return 0;
  } catch (const CLI::CallForAllHelp&) {
    std::cout << app.help("", CLI::AppFormatMode::All);
    return 0;
  } catch (const CLI::ParseError& error) {
    std::fprintf(stderr, "qvhandoff: %s (see qvhandoff --help)\n", error.what());
    return 2;
  }

  options.dnssd.mode = QVDNSSDConfiguration::modeFromString(mode).value_or(QVDNSSDConfiguration::Mode::Auto);
  if (!interfaces.empty()) options.dnssd.interfaces = interfaces;
  if (!level.empty()) options.logLevel = spdlog::level::from_str(level);
  if (*serve) {
    options.command = Command::Serve;
  } else if (*peers) {
    options.command = Command::Peers;
    options.wait = milliseconds(peersWait);
  } else if (*get) {
    options.command = Command::Get;
    options.wait = milliseconds(getWait);
  } else if (*saveBack) {
    options.command = Command::SaveBack;
    options.wait = milliseconds(saveBackWait);
  } else {
    options.command = Command::Info;
  }
  if (options.command != Command::Info && options.container.empty()) {
    std::fputs("qvhandoff: no container folder: give --container DIR or set QVHANDOFF_CONTAINER\n", stderr);
    return 2;
  }
  return options;
}
