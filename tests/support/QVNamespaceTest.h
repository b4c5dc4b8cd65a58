// SPDX-License-Identifier: MIT
#pragma once
// The harness of the end-to-end tests: hosts A, B, C... in network namespaces of their own, made by
// scripts/netns.sh (skipped where they cannot be made, never touching the machine's own interfaces), and
// the children the test starts in them. The children end before their namespaces go, also when a test
// fails; their logs are checked for sanitizer reports and shown, with their events, when it does.
// Only the e2e binary includes this: it defines the script paths.

#include "support/QVChildProcess.h"
#include "support/QVTestSupport.h"

#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include <unistd.h>

class QVNamespaceTest : public ::testing::Test {
protected:
  struct Host {
    std::string letter;
    std::string netns;
    std::string interface;
    std::string address;
  };

  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "the end-to-end tests need root to make network namespaces";
    if (QVRunCommand({"ip", "netns", "list"}) != 0) GTEST_SKIP() << "the end-to-end tests need `ip netns`";
  }

  void TearDown() override {
    std::vector<std::pair<std::string, std::vector<nlohmann::json>>> events;
    for (const auto& [label, child] : children_)
      events.emplace_back(label, child->events());
    children_.clear();
    if (!run_.empty()) QVRunCommand({QVHANDOFF_NETNS_SCRIPT, "remove", run_});
    for (const auto& name : work_.entries()) {
      if (!name.ends_with(".log")) continue;
      std::ifstream file(work_.file(name));
      const std::string log(std::istreambuf_iterator<char>(file), {});
      EXPECT_EQ(log.find("Sanitizer"), std::string::npos) << name << ":\n" << log;
      EXPECT_EQ(log.find("runtime error"), std::string::npos) << name << ":\n" << log;
      if (HasFailure()) std::cerr << "---- " << name << "\n" << log;
    }
    if (!HasFailure()) return;
    for (const auto& [label, list] : events) {
      std::cerr << "---- events of " << label << "\n";
      for (const auto& e : list)
        std::cerr << e.dump() << "\n";
    }
  }

  bool makeHosts(size_t count) {
    std::string output;
    const int status = QVRunCommand(
        {QVHANDOFF_NETNS_SCRIPT, "create", std::to_string(count), std::to_string(getpid())}, &output);
    std::istringstream lines(output);
    for (std::string kind; lines >> kind;) {
      if (kind == "run") lines >> run_;
      if (kind != "host") continue;
      Host& host = hosts_.emplace_back();
      lines >> host.letter >> host.netns >> host.interface >> host.address;
    }
    const bool made = status == 0 && !run_.empty() && hosts_.size() == count;
    EXPECT_TRUE(made) << "couldn't make " << count << " hosts: " << output;
    return made;
  }
  const Host& host(size_t index) const { return hosts_.at(index); }

  // Joins two hosts by one more veth pair, so that each sees the other on two interfaces. Returns the new
  // interface names (first on `a`, then on `b`), or none.
  std::optional<std::pair<std::string, std::string>> addLink(size_t a, size_t b) {
    // Named after the run, so that removing the run also finds a pair left behind half made.
    const std::string nameA = run_ + "x", nameB = run_ + "y";
    const std::string subnet = host(a).address.substr(0, host(a).address.rfind('.') + 1);
    for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
             {"ip", "link", "add", nameA, "type", "veth", "peer", "name", nameB},
             {"ip", "link", "set", nameA, "netns", host(a).netns},
             {"ip", "link", "set", nameB, "netns", host(b).netns},
             {"ip", "-n", host(a).netns, "addr", "add", subnet + "101/24", "dev", nameA},
             {"ip", "-n", host(b).netns, "addr", "add", subnet + "102/24", "dev", nameB},
             {"ip", "-n", host(a).netns, "link", "set", nameA, "up"},
             {"ip", "-n", host(b).netns, "link", "set", nameB, "up"}}) {
      if (QVRunCommand(command) != 0) return std::nullopt;
    }
    return std::make_pair(nameA, nameB);
  }

  // Its stderr goes to "<label>-<n>.log" in the work folder.
  QVChildProcess& start(const std::string& label, const std::vector<std::string>& argv) {
    const std::string log = work_.file(label + "-" + std::to_string(children_.size()) + ".log");
    children_.emplace_back(label, std::make_unique<QVChildProcess>(argv, log));
    EXPECT_TRUE(children_.back().second->started());
    return *children_.back().second;
  }

  static bool daemonToolsInstalled() {
    return QVRunCommand({"sh", "-c",
                         "command -v avahi-daemon && command -v dbus-daemon && command -v avahi-browse"}) ==
           0;
  }
  // A system bus and an mDNS daemon for host `index`, in a mount namespace of their own.
  QVChildProcess& daemons(size_t index) {
    const auto& h = host(index);
    return start(h.letter + "-daemons",
                 {"ip", "netns", "exec", h.netns, QVHANDOFF_DNSSD_DAEMONS, "host-" + h.letter, h.interface});
  }

  QVTemporaryFolder work_;
  std::string run_;
  std::vector<Host> hosts_;
  std::vector<std::pair<std::string, std::unique_ptr<QVChildProcess>>> children_;
};
