#include "support/QVNetworkNamespaces.h"

#include "support/QVChildProcess.h"

#include <unistd.h>

#include <sstream>

std::optional<std::string> QVNetworkNamespaces::unavailableReason() {
  if (geteuid() != 0) return "DNS-SD end-to-end tests need root to make network namespaces";
  if (QVRunCommand({"ip", "netns", "list"}) != 0) return "DNS-SD end-to-end tests need iproute2 (`ip netns`)";
  return std::nullopt;
}

QVNetworkNamespaces::QVNetworkNamespaces(std::string script, size_t count) : script_(std::move(script)) {
  std::string output;
  const int status =
      QVRunCommand({script_, "create", std::to_string(count), std::to_string(getpid())}, &output);
  std::istringstream lines(output);
  std::string kind;
  while (lines >> kind) {
    if (kind == "run") {
      lines >> run_;
    } else if (kind == "host") {
      Host host;
      lines >> host.letter >> host.netns >> host.interface >> host.address;
      hosts_.push_back(host);
    }
  }
  if (status != 0 || run_.empty() || hosts_.size() != count) {
    failure_ = "couldn't make " + std::to_string(count) + " hosts with " + script_ + ": " + output;
  }
}

QVNetworkNamespaces::~QVNetworkNamespaces() {
  if (!run_.empty()) QVRunCommand({script_, "remove", run_});
}

std::optional<std::pair<std::string, std::string>> QVNetworkNamespaces::addLink(size_t a, size_t b) {
  // Named after the run, so that removing the run also finds a pair left behind half made.
  const std::string nameA = run_ + "x";
  const std::string nameB = run_ + "y";
  const std::string subnet = host(a).address.substr(0, host(a).address.rfind('.') + 1);
  const std::vector<std::vector<std::string>> commands = {
      {"ip", "link", "add", nameA, "type", "veth", "peer", "name", nameB},
      {"ip", "link", "set", nameA, "netns", host(a).netns},
      {"ip", "link", "set", nameB, "netns", host(b).netns},
      {"ip", "-n", host(a).netns, "addr", "add", subnet + "101/24", "dev", nameA},
      {"ip", "-n", host(b).netns, "addr", "add", subnet + "102/24", "dev", nameB},
      {"ip", "-n", host(a).netns, "link", "set", nameA, "up"},
      {"ip", "-n", host(b).netns, "link", "set", nameB, "up"},
  };
  for (const auto& command : commands) {
    if (QVRunCommand(command) != 0) return std::nullopt;
  }
  return std::make_pair(nameA, nameB);
}
