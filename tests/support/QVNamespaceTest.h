#pragma once
// The harness of the end-to-end tests: hosts in network namespaces made by the test (skipped where they
// cannot be made) and the children the test starts in them. The children end before their namespaces
// go; their logs are checked for sanitizer reports and shown, with their events, when the test fails.
// Only the e2e binary includes this: it defines the script paths.

#include "support/QVChildProcess.h"
#include "support/QVNetworkNamespaces.h"
#include "support/QVTestSupport.h"

#include <fstream>
#include <iostream>
#include <iterator>

class QVNamespaceTest : public ::testing::Test {
protected:
  void SetUp() override {
    if (auto reason = QVNetworkNamespaces::unavailableReason()) GTEST_SKIP() << *reason;
  }

  void TearDown() override {
    std::vector<std::pair<std::string, std::vector<nlohmann::json>>> events;
    for (const auto& [label, child] : children_)
      events.emplace_back(label, child->events());
    children_.clear();
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
    namespaces_ = std::make_unique<QVNetworkNamespaces>(QVHANDOFF_NETNS_SCRIPT, count);
    EXPECT_EQ(namespaces_->failure(), "");
    return namespaces_->failure().empty();
  }
  const QVNetworkNamespaces::Host& host(size_t index) const { return namespaces_->host(index); }

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
  std::unique_ptr<QVNetworkNamespaces> namespaces_;
  // Declared after the namespaces: the children end before their namespaces go.
  std::vector<std::pair<std::string, std::unique_ptr<QVChildProcess>>> children_;
};
