// DNS-SD between hosts in network namespaces made by the test: each host runs the probe tool with the
// embedded stack on its own interfaces only, and the test reads the probes' events.

#include "support/QVChildProcess.h"
#include "support/QVNetworkNamespaces.h"
#include "support/QVTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>

using namespace std::chrono_literals;

namespace {

// Bounds, not expectations: discovery takes about 2 s, a host-name collision adds about 1 s.
constexpr auto kDiscovery = 15s;
constexpr auto kQuiet = 3s;
// The shape of a real type: "_qvhandoff" and a UUID make a 46-character first label.
const std::string kType = "_qvhandoff0A1B2C3D-4E5F-6071-8293-A4B5C6D7E8F9._tcp";
constexpr int64_t kAvahiInvalidServiceType = -11;
constexpr int64_t kAvahiTimeout = -15;
constexpr int64_t kAvahiDisconnected = -23;

QVChildProcess::Match event(const std::string& name,
                            const std::optional<std::string>& service = std::nullopt) {
  return QVChildProcess::event(name, service);
}

// A TXT event for `service` whose record holds `key` = `value`.
QVChildProcess::Match txtWith(const std::string& service, const std::string& key, const std::string& value) {
  return
      [=](const nlohmann::json& e) { return event("txt", service)(e) && e["txt"].value(key, "") == value; };
}

} // namespace

class DNSSDTest : public ::testing::Test {
protected:
  void SetUp() override {
    if (auto reason = QVNetworkNamespaces::unavailableReason()) GTEST_SKIP() << *reason;
  }

  void TearDown() override {
    // End the children first so that their logs are complete, sanitizer reports included.
    std::vector<nlohmann::json> events;
    for (const auto& probe : probes_) {
      for (auto& e : probe->events())
        events.push_back(std::move(e));
    }
    probes_.clear();
    for (const auto& name : logs_.entries()) {
      std::ifstream file(logs_.file(name));
      const std::string log(std::istreambuf_iterator<char>(file), {});
      EXPECT_EQ(log.find("Sanitizer"), std::string::npos) << name << ":\n" << log;
      EXPECT_EQ(log.find("runtime error"), std::string::npos) << name << ":\n" << log;
      if (HasFailure()) std::cerr << "---- " << name << "\n" << log;
    }
    if (HasFailure()) {
      for (const auto& e : events)
        std::cerr << e.dump() << "\n";
    }
  }

  bool makeHosts(size_t count) {
    hosts_ = std::make_unique<QVNetworkNamespaces>(QVHANDOFF_NETNS_SCRIPT, count);
    EXPECT_EQ(hosts_->failure(), "");
    return hosts_->failure().empty();
  }

  // A probe on host `index`, its stack on the host's interfaces only; with `ownHostName` false it keeps
  // the machine's name, which every namespace shares. The test's arguments come last and win.
  QVChildProcess& probe(size_t index, const std::vector<std::string>& arguments,
                        std::vector<std::string> interfaces = {}, bool ownHostName = true) {
    const QVNetworkNamespaces::Host& host = hosts_->host(index);
    std::vector<std::string> argv = {"ip",     "netns",    "exec",   host.netns, QVHANDOFF_DNSSD_PROBE,
                                     "--mode", "embedded", "--type", kType,      "--duration",
                                     "60"};
    if (interfaces.empty()) interfaces = {host.interface};
    for (const auto& interface : interfaces)
      argv.insert(argv.end(), {"--interface", interface});
    if (ownHostName) argv.insert(argv.end(), {"--host-name", "host-" + host.letter});
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return start(host.letter, argv);
  }

  // A system bus and an mDNS daemon for host `index`, in a mount namespace of their own.
  QVChildProcess& daemons(size_t index) {
    const QVNetworkNamespaces::Host& host = hosts_->host(index);
    return start(host.letter + "-daemons", {"ip", "netns", "exec", host.netns, QVHANDOFF_DNSSD_DAEMONS,
                                            "host-" + host.letter, host.interface});
  }

  // A probe that talks to the daemons of `daemons`, inside their network and mount namespaces.
  QVChildProcess& daemonProbe(const QVChildProcess& daemons, const std::vector<std::string>& arguments) {
    std::vector<std::string> argv = {
        "nsenter",    "-t", std::to_string(daemons.pid()), "-m", "-n", QVHANDOFF_DNSSD_PROBE, "--type", kType,
        "--duration", "60"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return start("daemon-probe", argv);
  }

  QVChildProcess& start(const std::string& label, const std::vector<std::string>& argv) {
    const std::string log = logs_.file(label + "-" + std::to_string(probes_.size()) + ".log");
    probes_.push_back(std::make_unique<QVChildProcess>(argv, log));
    EXPECT_TRUE(probes_.back()->started());
    return *probes_.back();
  }

  const QVNetworkNamespaces::Host& host(size_t index) const { return hosts_->host(index); }

  QVTemporaryFolder logs_;
  std::unique_ptr<QVNetworkNamespaces> hosts_;
  // Declared after the hosts: the probes end before their namespaces go.
  std::vector<std::unique_ptr<QVChildProcess>> probes_;
};

TEST_F(DNSSDTest, HostsWithTheSameMachineNameFindAndResolveEachOther) {
  ASSERT_TRUE(makeHosts(2));
  auto& a = probe(0, {"--publish", "", "--port", "4001", "--browse", "--resolve"}, {}, false);
  auto& b = probe(1, {"--publish", "", "--port", "4002", "--browse", "--resolve"}, {}, false);

  const auto publishedA = a.waitFor(event("published"), kDiscovery);
  const auto publishedB = b.waitFor(event("published"), kDiscovery);
  ASSERT_TRUE(publishedA && publishedB) << "no publication confirmed";
  const std::string nameA = (*publishedA)["name"];
  const std::string nameB = (*publishedB)["name"];
  // Both claimed the machine's name: one had to rename its host, and its service with it.
  EXPECT_NE(nameA, nameB);

  const auto atB = b.waitFor(event("resolved", nameA), kDiscovery);
  const auto atA = a.waitFor(event("resolved", nameB), kDiscovery);
  ASSERT_TRUE(atA && atB) << "a peer was not resolved";
  EXPECT_EQ((*atB)["addresses"], nlohmann::json::array({host(0).address}));
  EXPECT_EQ((*atB)["port"], 4001);
  EXPECT_EQ((*atB)["registry"], host(0).address);
  EXPECT_EQ((*atA)["addresses"], nlohmann::json::array({host(1).address}));
  EXPECT_EQ((*atA)["port"], 4002);
  EXPECT_EQ((*atA)["registry"], host(1).address);
  EXPECT_NE((*atA)["host"], (*atB)["host"]);
  // A browser sees its own host's service too; telling it apart by name is the caller's business.
  EXPECT_TRUE(a.waitFor(event("found", nameA), kDiscovery));
  EXPECT_EQ(a.count(event("found", nameB)), 1u);
}

TEST_F(DNSSDTest, TXTUpdatesReachThePeerAndEveryWithdrawalRemovesTheService) {
  ASSERT_TRUE(makeHosts(2));
  const std::string name = "Reader on A";
  auto& browser = probe(1, {"--browse", "--monitor"});
  ASSERT_TRUE(browser.waitFor(event("browsing"), kDiscovery));
  auto& publisher =
      probe(0, {"--publish", name, "--port", "4242", "--txt", "hasDocs=0", "--txt", "productName=Probe"});

  ASSERT_TRUE(browser.waitFor(event("found", name), kDiscovery));
  ASSERT_TRUE(browser.waitFor(txtWith(name, "hasDocs", "0"), kDiscovery));
  size_t mark = browser.eventCount();
  publisher.send("txt hasDocs=1 dateMark=2026-11-15T03:13:31.123");
  const auto updated = browser.waitFor(txtWith(name, "hasDocs", "1"), kDiscovery, mark);
  ASSERT_TRUE(updated) << "TXT update not seen";
  // The whole record is replaced: the entries not changed are still there.
  EXPECT_EQ(
      (*updated)["txt"],
      nlohmann::json({{"hasDocs", "1"}, {"dateMark", "2026-11-15T03:13:31.123"}, {"productName", "Probe"}}));

  mark = browser.eventCount();
  publisher.send("stop");
  EXPECT_TRUE(publisher.waitFor(event("stopped", name), kDiscovery));
  ASSERT_TRUE(browser.waitFor(event("removed", name), kDiscovery, mark));
  mark = browser.eventCount();
  publisher.send("publish");
  ASSERT_TRUE(browser.waitFor(event("found", name), kDiscovery, mark));
  mark = browser.eventCount();
  publisher.send("quit");
  EXPECT_TRUE(publisher.waitForExit(kDiscovery));
  ASSERT_TRUE(browser.waitFor(event("removed", name), kDiscovery, mark));
  EXPECT_EQ(browser.count(event("found", name)), 2u);
  EXPECT_EQ(browser.count(event("removed", name)), 2u);
}

TEST_F(DNSSDTest, NameCollisionIsRenamedAndReported) {
  ASSERT_TRUE(makeHosts(3));
  auto& c = probe(2, {"--browse"});
  auto& a = probe(0, {"--publish", "Shared Name", "--port", "4001"});
  auto& b = probe(1, {"--publish", "Shared Name", "--port", "4002"});

  const auto publishedA = a.waitFor(event("published"), kDiscovery);
  const auto publishedB = b.waitFor(event("published"), kDiscovery);
  ASSERT_TRUE(publishedA && publishedB) << "no publication confirmed";
  std::vector<std::string> names = {(*publishedA)["name"], (*publishedB)["name"]};
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"Shared Name", "Shared Name #2"}));
  for (const auto& name : names)
    EXPECT_TRUE(c.waitFor(event("found", name), kDiscovery)) << name;
}

TEST_F(DNSSDTest, ServiceSeenOnTwoInterfacesIsOneService) {
  ASSERT_TRUE(makeHosts(2));
  const auto link = hosts_->addLink(0, 1);
  ASSERT_TRUE(link) << "couldn't add a second link";
  const std::string name = "Twice Linked";
  auto& browser = probe(1, {"--browse"}, {host(1).interface, link->second});
  ASSERT_TRUE(browser.waitFor(event("browsing"), kDiscovery));
  auto& publisher = probe(0, {"--publish", name, "--port", "4242"}, {host(0).interface, link->first});
  ASSERT_TRUE(publisher.waitFor(event("published", name), kDiscovery));
  ASSERT_TRUE(browser.waitFor(event("found", name), kDiscovery));

  // Losing one of the two links loses one instance, not the service.
  EXPECT_FALSE(browser.waitFor(event("removed", name), kQuiet));
  ASSERT_EQ(QVRunCommand({"ip", "-n", host(1).netns, "link", "set", link->second, "down"}), 0);
  EXPECT_FALSE(browser.waitFor(event("removed", name), kQuiet));
  publisher.send("quit");
  ASSERT_TRUE(browser.waitFor(event("removed", name), kDiscovery));
  EXPECT_EQ(browser.count(event("found", name)), 1u);
  EXPECT_EQ(browser.count(event("removed", name)), 1u);
}

TEST_F(DNSSDTest, FailuresReachTheDelegateWithAvahiCodes) {
  ASSERT_TRUE(makeHosts(2));
  auto& a = probe(0, {"--type", "not a type", "--publish", "Broken", "--browse"});
  const auto notPublished = a.waitFor(event("notPublished"), kDiscovery);
  const auto notSearched = a.waitFor(event("notSearch"), kDiscovery);
  ASSERT_TRUE(notPublished && notSearched);
  EXPECT_EQ((*notPublished)["code"], kAvahiInvalidServiceType);
  EXPECT_EQ((*notSearched)["code"], kAvahiInvalidServiceType);

  // Nobody answers: Avahi gives up after 5 s and is asked again, until the caller's 6 s have passed.
  a.send("resolve Nobody " + kType + " 6");
  const auto notResolved = a.waitFor(event("notResolved", "Nobody"), kDiscovery);
  ASSERT_TRUE(notResolved);
  EXPECT_EQ((*notResolved)["code"], kAvahiTimeout);
}

TEST_F(DNSSDTest, DaemonModeWithADaemonPerHost) {
  if (QVRunCommand({"sh", "-c",
                    "command -v avahi-daemon && command -v dbus-daemon && command -v avahi-browse"}) != 0) {
    GTEST_SKIP() << "the daemon-mode test needs avahi-daemon, dbus-daemon and avahi-browse";
  }
  ASSERT_TRUE(makeHosts(2));
  auto& daemonsA = daemons(0);
  auto& daemonsB = daemons(1);
  ASSERT_TRUE(daemonsA.waitFor(event("ready"), kDiscovery) && daemonsB.waitFor(event("ready"), kDiscovery))
      << "the daemons did not come up";

  // Auto mode takes the daemon when one answers.
  auto& browser = daemonProbe(daemonsB, {"--mode", "auto", "--browse", "--resolve", "--monitor"});
  ASSERT_TRUE(browser.waitFor(event("browsing"), kDiscovery));
  auto& publisher = daemonProbe(
      daemonsA, {"--mode", "daemon", "--publish", "Daemon A", "--port", "4242", "--txt", "hasDocs=0"});
  const auto published = publisher.waitFor(event("published"), kDiscovery);
  ASSERT_TRUE(published);
  EXPECT_EQ((*published)["name"], "Daemon A");
  const auto resolved = browser.waitFor(event("resolved", "Daemon A"), kDiscovery);
  ASSERT_TRUE(resolved);
  EXPECT_EQ((*resolved)["host"], "host-A.local");
  EXPECT_EQ((*resolved)["addresses"], nlohmann::json::array({host(0).address}));
  EXPECT_EQ((*resolved)["port"], 4242);
  size_t mark = browser.eventCount();
  publisher.send("txt hasDocs=1");
  ASSERT_TRUE(browser.waitFor(txtWith("Daemon A", "hasDocs", "1"), kDiscovery, mark));

  // The daemon's own tools see the same service with the new record.
  std::string listing;
  EXPECT_EQ(QVRunCommand({"nsenter", "-t", std::to_string(daemonsB.pid()), "-m", "-n", "timeout", "10",
                          "avahi-browse", "-rpt", kType},
                         &listing),
            0);
  const std::string expected = "=;" + host(1).interface + ";IPv4;Daemon\\032A;" + kType +
                               ";local;host-A.local;" + host(0).address + ";4242;\"hasDocs=1\"";
  EXPECT_NE(listing.find(expected), std::string::npos) << listing;

  // The daemon going away ends the search with Avahi's code.
  mark = browser.eventCount();
  daemonsB.send("stop-avahi");
  const auto notSearched = browser.waitFor(event("notSearch"), kDiscovery, mark);
  ASSERT_TRUE(notSearched);
  EXPECT_EQ((*notSearched)["code"], kAvahiDisconnected);
}
