// SPDX-License-Identifier: MIT
// DNS-SD between hosts in network namespaces made by the test: each host runs the probe tool with the
// embedded stack on its own interfaces only, and the test reads the probes' events.

#include "support/QVNamespaceTest.h"

#include <set>

using namespace std::chrono_literals;

namespace {

// Bounds, not expectations: discovery takes about 2 s, a host-name collision adds about 1 s.
constexpr auto kDiscovery = 15s;
constexpr auto kQuiet = 3s;
// The shape of a real type: "_qvhandoff" and a UUID make a 46-character first label.
const std::string kType = "_qvhandoff0A1B2C3D-4E5F-6071-8293-A4B5C6D7E8F9._tcp";
constexpr int64_t kAvahiInvalidServiceType = -11;

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

class DNSSDTest : public QVNamespaceTest {
protected:
  // A probe on host `index`, its stack on the host's interfaces only; with `ownHostName` false it keeps
  // the machine's name, which every namespace shares. The test's arguments come last and win.
  QVChildProcess& probe(size_t index, const std::vector<std::string>& arguments,
                        std::vector<std::string> interfaces = {}, bool ownHostName = true) {
    const Host& h = host(index);
    std::vector<std::string> argv = {"ip",     "netns",    "exec",   h.netns, QVHANDOFF_DNSSD_PROBE,
                                     "--mode", "embedded", "--type", kType,   "--duration",
                                     "60"};
    if (interfaces.empty()) interfaces = {h.interface};
    for (const auto& interface : interfaces)
      argv.insert(argv.end(), {"--interface", interface});
    if (ownHostName) argv.insert(argv.end(), {"--host-name", "host-" + h.letter});
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return start(h.letter, argv);
  }
};

TEST_F(DNSSDTest, HostAndServiceNameCollisionsAreRenamedAndTheHostsResolveEachOther) {
  ASSERT_TRUE(makeHosts(2));
  // Both claim the machine's host name and the same service name: one must rename its host, and one its
  // service.
  auto& a = probe(0, {"--publish", "Shared Name", "--port", "4001", "--browse", "--resolve"}, {}, false);
  auto& b = probe(1, {"--publish", "Shared Name", "--port", "4002", "--browse", "--resolve"}, {}, false);

  const auto publishedA = a.waitFor(event("published"), kDiscovery);
  const auto publishedB = b.waitFor(event("published"), kDiscovery);
  ASSERT_TRUE(publishedA && publishedB) << "no publication confirmed";
  const std::string nameA = (*publishedA)["name"];
  const std::string nameB = (*publishedB)["name"];
  EXPECT_EQ((std::set{nameA, nameB}), (std::set<std::string>{"Shared Name", "Shared Name #2"}));

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

TEST_F(DNSSDTest, OneServiceOnTwoLinksFollowsTXTUpdatesAndEveryWithdrawal) {
  ASSERT_TRUE(makeHosts(2));
  const auto link = addLink(0, 1);
  ASSERT_TRUE(link) << "couldn't add a second link";
  const std::string name = "Reader on A";
  auto& browser = probe(1, {"--browse", "--monitor"}, {host(1).interface, link->second});
  ASSERT_TRUE(browser.waitFor(event("browsing"), kDiscovery));
  auto& publisher =
      probe(0, {"--publish", name, "--port", "4242", "--txt", "hasDocs=0", "--txt", "productName=Probe"},
            {host(0).interface, link->first});

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

  // Losing one of the two links loses one instance, not the service.
  mark = browser.eventCount();
  ASSERT_EQ(QVRunCommand({"ip", "-n", host(1).netns, "link", "set", link->second, "down"}), 0);
  EXPECT_FALSE(browser.waitFor(event("removed", name), kQuiet, mark));
  publisher.send("quit");
  EXPECT_TRUE(publisher.waitForExit(kDiscovery));
  ASSERT_TRUE(browser.waitFor(event("removed", name), kDiscovery, mark));
  // Seen on two links, the service is still found and removed once each time.
  EXPECT_EQ(browser.count(event("found", name)), 2u);
  EXPECT_EQ(browser.count(event("removed", name)), 2u);
}

// A resolve that times out is seen end to end: HostDiscoveryTest drops a peer gone for good after it.
TEST_F(DNSSDTest, FailuresReachTheDelegateWithAvahiCodes) {
  ASSERT_TRUE(makeHosts(2));
  auto& a = probe(0, {"--type", "not a type", "--publish", "Broken", "--browse"});
  const auto notPublished = a.waitFor(event("notPublished"), kDiscovery);
  const auto notSearched = a.waitFor(event("notSearch"), kDiscovery);
  ASSERT_TRUE(notPublished && notSearched);
  EXPECT_EQ((*notPublished)["code"], kAvahiInvalidServiceType);
  EXPECT_EQ((*notSearched)["code"], kAvahiInvalidServiceType);
}

// Two embedded stacks on one host and one interface (a one-shot command beside a running installation)
// both claim the machine's name: both publish, the newer one finds the older and resolves the peer, ten
// times in a row.
TEST_F(DNSSDTest, TwoStacksOnOneHostCoexistAndFindTheirPeer) {
  ASSERT_TRUE(makeHosts(2));
  auto& peer = probe(1, {"--publish", "Peer", "--port", "4003"});
  ASSERT_TRUE(peer.waitFor(event("published"), kDiscovery));
  constexpr int kRounds = 10;
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const std::string suffix = " " + std::to_string(round);
    auto& running = probe(0, {"--publish", "Running" + suffix, "--port", "4001", "--browse"}, {}, false);
    ASSERT_TRUE(running.waitFor(event("published"), kDiscovery)) << "the first stack never published";
    auto& oneShot =
        probe(0, {"--publish", "One-shot" + suffix, "--port", "4002", "--browse", "--resolve"}, {}, false);

    const auto published = oneShot.waitFor(event("published"), kDiscovery);
    ASSERT_TRUE(published) << "the second stack never published";
    EXPECT_TRUE(oneShot.waitFor(event("resolved", "Peer"), kDiscovery));
    EXPECT_TRUE(oneShot.waitFor(event("resolved", "Running" + suffix), kDiscovery));
    EXPECT_TRUE(running.waitFor(event("found", (*published)["name"]), kDiscovery));
    oneShot.send("quit");
    running.send("quit");
    EXPECT_TRUE(oneShot.waitForExit(kDiscovery) && running.waitForExit(kDiscovery));
  }
}
