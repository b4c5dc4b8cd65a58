// SPDX-License-Identifier: MIT
// Installations of the host find each other through DNS-SD and follow each other's open documents.

#include "QVHostsFixture.h"

#include <csignal>
#include <sstream>
#include <thread>

using namespace QVHosts;

namespace {

const char* const kServersInfo = "QVHandoffManagerDidUpdateServersInfoNotification";

// Whether any servers notification of `events` listed `device`.
bool everListed(const std::vector<Json>& events, const std::string& device) {
  for (const auto& e : events) {
    if (e.value("event", "") == kServersInfo && peer(e["peers"], device)) return true;
  }
  return false;
}

} // namespace

class HostDiscoveryTest : public QVHostsFixture {};

TEST_F(HostDiscoveryTest, PeersListEachOthersDocumentsAndFollowEveryChange) {
  ASSERT_TRUE(makeHosts(3));
  const std::string report = document(0, "Report 2026.pdf", "%PDF-1.4 report");
  const std::string notes = document(0, "Notes.txt", "notes");
  const std::string later = document(0, "Later.txt", "opened later");
  const std::string plan = document(1, "Plan.txt", "plan");
  // Another user: a folder of its own, so another service type and key.
  auto& stranger = serve(2, {document(2, "Secret.txt", "secret")}, container("stranger"));
  // The first host makes the key; the next one finds it in the folder.
  auto& a = serve(0, {report, notes}, container());
  const std::string nameA = publishedName(a);
  auto& b = serve(1, {plan}, container());
  const std::string nameB = publishedName(b);
  const std::string nameC = publishedName(stranger);
  ASSERT_FALSE(nameA.empty() || nameB.empty() || nameC.empty()) << "a host was not published";

  const auto atB = waitForPeers(b, lists(nameA, {report, notes}, 0));
  ASSERT_TRUE(atB) << "B never listed A's documents";
  const Json& listed = *peer((*atB)["peers"], nameA);
  EXPECT_EQ(listed["productName"], "Host A");
  EXPECT_EQ(listed["deviceType"], 3);
  EXPECT_EQ(listed["documents"][0]["active"], true);
  EXPECT_EQ(listed["documents"][1]["active"], false);
  EXPECT_EQ(listed["documents"][0]["size"], 15);
  EXPECT_EQ(listed["documents"][0]["contentType"], "application/pdf");
  EXPECT_EQ(listed["documents"][0]["device"], nameA);
  EXPECT_TRUE(waitForPeers(a, lists(nameB, {plan}, 0))) << "A never listed B's document";

  // The front document changes: B is told which one it is now.
  size_t mark = b.eventCount();
  a.send("activate 1");
  const auto active = b.waitFor(
      [&](const Json& e) {
        return e.value("event", "") == "QVHandoffManagerDidChangeActiveRemoteDocumentNotification" &&
               e["userInfo"]["QVHandoffManagerDocumentInfoKey"]["path"] == notes;
      },
      kDiscovery, mark);
  EXPECT_TRUE(active) << "no active-document notice for " << notes;
  EXPECT_TRUE(waitForPeers(b, lists(nameA, {report, notes}, 1), mark));

  mark = b.eventCount();
  a.send("open " + later);
  EXPECT_TRUE(waitForPeers(b, lists(nameA, {report, notes, later}, 2), mark)) << "open not seen";
  mark = b.eventCount();
  a.send("close " + quoted(report));
  EXPECT_TRUE(waitForPeers(b, lists(nameA, {notes, later}, 1), mark)) << "close not seen";

  // A host that quits withdraws its service: it leaves the list at once.
  mark = b.eventCount();
  a.send("quit");
  EXPECT_TRUE(a.waitFor(event("exit"), kDiscovery));
  EXPECT_TRUE(waitForPeers(
      b, [&](const Json& peers) { return !peer(peers, nameA); }, mark))
      << "A is still listed after it quit";

  // By now the stranger had every chance to be seen, and to see: neither happened.
  EXPECT_FALSE(everListed(a.events(), nameC));
  EXPECT_FALSE(everListed(b.events(), nameC));
  EXPECT_FALSE(everListed(stranger.events(), nameA) || everListed(stranger.events(), nameB));
}

TEST_F(HostDiscoveryTest, DaemonModeHostsListEachOtherAndPublishTheFourTXTKeys) {
  if (!daemonToolsInstalled()) GTEST_SKIP() << "needs avahi-daemon, dbus-daemon and avahi-browse";
  ASSERT_TRUE(makeHosts(2));
  auto& daemonsA = daemons(0);
  auto& daemonsB = daemons(1);
  ASSERT_TRUE(daemonsA.waitFor(event("ready"), kDiscovery) && daemonsB.waitFor(event("ready"), kDiscovery))
      << "the daemons did not come up";
  const std::string report = document(0, "Report.txt", "report");
  const std::string plan = document(1, "Plan.txt", "plan");
  auto& a = serve(0, {report}, container(), &daemonsA);
  const std::string nameA = publishedName(a);
  auto& b = serve(1, {plan}, container(), &daemonsB);
  const std::string nameB = publishedName(b);
  ASSERT_FALSE(nameA.empty() || nameB.empty()) << "a host was not published";
  // Published under its daemon's host name: the daemon was chosen, and it keeps the machine's names apart.
  EXPECT_EQ(nameA, "host-A");
  EXPECT_TRUE(waitForPeers(b, lists(nameA, {report}, 0))) << "B never listed A's document";
  EXPECT_TRUE(waitForPeers(a, lists(nameB, {plan}, 0))) << "A never listed B's document";
  // A new record goes out through the daemon too.
  const size_t mark = b.eventCount();
  a.send("open " + document(0, "Notes.txt", "notes"));
  EXPECT_TRUE(waitForPeers(b, lists(nameA, {report, work_.file("documents-A/Notes.txt")}, 1), mark));

  // The daemon's own tools see A's service with exactly the four entries of its record.
  std::string listing;
  EXPECT_EQ(QVRunCommand({"nsenter", "-t", std::to_string(daemonsB.pid()), "-m", "-n", "timeout", "10",
                          "avahi-browse", "-arpt"},
                         &listing),
            0);
  // =;interface;protocol;name;type;domain;host;address;port;"key=value" "key=value"...
  std::string record;
  std::istringstream lines(listing);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("=;") && line.find(";" + nameA + ";_qvhandoff") != std::string::npos) record = line;
  }
  ASSERT_FALSE(record.empty()) << listing;
  const std::string TXT = record.substr(record.rfind(';') + 1);
  EXPECT_EQ(std::count(TXT.begin(), TXT.end(), '"'), 8) << record;
  for (const char* entry : {"\"hasDocs=1\"", "\"dateMark=", "\"deviceType=3\"", "\"productName=Host A\""})
    EXPECT_NE(TXT.find(entry), std::string::npos) << entry << " in " << record;
  // "_qvhandoff" and a UUID make the first label of the type.
  const size_t type = record.find(";_qvhandoff") + 1;
  EXPECT_EQ(record.substr(type + 46, 6), "._tcp;") << record;

  // The daemon going away ends B's search with the daemon's own code (bounded: 10 s).
  daemonsB.send("stop-avahi");
  const auto searchEnded = [&] {
    const QVData log = QVReadFile(work_.file("B-3.log"));
    return std::string(log.begin(), log.end())
               .find("search error Error Domain=QVNetServicesErrorDomain Code=-23") != std::string::npos;
  };
  for (int i = 0; i < 100 && !searchEnded(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_TRUE(searchEnded()) << "B was not told that its daemon went away";
}

TEST_F(HostDiscoveryTest, APeerGoneForGoodIsRemovedAfterTheResolveTimeoutAndListedWhenBack) {
  ASSERT_TRUE(makeHosts(2));
  const std::string report = document(0, "Report.txt", "report");
  const std::string notes = document(0, "Notes.txt", "notes");
  auto* a = &serve(0, {report}, container());
  const std::string nameA = publishedName(*a);
  auto& b = serve(1, {}, container());
  ASSERT_FALSE(nameA.empty());
  ASSERT_TRUE(waitForPeers(b, lists(nameA, {report}, 0)));

  // Killed, A says no goodbye: its service stays announced while its port refuses connections.
  ASSERT_EQ(kill(a->pid(), SIGKILL), 0);
  ASSERT_TRUE(a->waitForExit(kDiscovery));
  size_t mark = b.eventCount();
  b.send("get " + quoted(nameA) + " " + quoted(report));
  const auto failed = b.waitFor(event("handoffFailed"), kDiscovery, mark);
  ASSERT_TRUE(failed) << "the handoff from a dead peer did not fail";
  EXPECT_EQ((*failed)["error"]["code"], -1004);

  // B's DNS-SD cache still answers with the dead address; only the 30 s resolve timeout ends A's record,
  // and B is told.
  const auto gone = waitForPeers(
      b, [&](const Json& list) { return !peer(list, nameA); }, mark, std::chrono::seconds(30) + kDiscovery);
  ASSERT_TRUE(gone) << "A was never removed";

  // Back under the same name on another port: its new announcement makes B find it again, and A is
  // listed with what it has open now.
  mark = b.eventCount();
  a = &serve(0, {notes}, container());
  EXPECT_EQ(publishedName(*a), nameA);
  EXPECT_TRUE(waitForPeers(b, lists(nameA, {notes}, 0), mark)) << "A was not listed again";

  std::ifstream file(work_.file("B-1.log"));
  const std::string log(std::istreambuf_iterator<char>(file), {});
  EXPECT_NE(log.find("Resetting HTTPAddress"), std::string::npos);
  EXPECT_NE(log.find("Couldn't resolve service \"" + nameA + "\" due"), std::string::npos);
  // A refusing peer costs a bounded number of requests, not a busy loop.
  EXPECT_EQ(log.find("request (4)"), std::string::npos);
}

TEST_F(HostDiscoveryTest, AServiceRunsWithoutInputAndWithdrawsOnSIGTERMAndSIGHUPOnItsOwnPort) {
  ASSERT_TRUE(makeHosts(2));
  // Before any host made the key: a one-shot says so and leaves the folder as it was.
  std::string output;
  EXPECT_EQ(oneShot(1, {"peers", "--json", "--wait", "1"}, &output, container()), 6);
  EXPECT_TRUE(output.empty()) << output;
  // Nor does a serve whose command line is wrong: it ends before it joins the network.
  EXPECT_EQ(oneShot(1, {"serve", work_.file("missing.pdf")}, &output, container()), 2);
  EXPECT_FALSE(std::filesystem::exists(work_.path() / "container" / ".com.quorvel.paperloom.handoff"))
      << "a key was written";

  const std::string report = document(0, "Report.txt", "report");
  auto& b = serve(1, {}, container());
  const std::string port = "47125";
  for (const int signal : {SIGTERM, SIGHUP}) {
    SCOPED_TRACE(strsignal(signal));
    const size_t mark = b.eventCount();
    auto& a = service(0, {"--port", port, report}, container());
    const std::string nameA = publishedName(a);
    ASSERT_FALSE(nameA.empty()) << "the service was not published (did the end of its input end it?)";
    ASSERT_TRUE(waitForPeers(b, lists(nameA, {report}, 0), mark)) << "B never listed the service";
    std::string sockets;
    QVRunCommand({"ip", "netns", "exec", host(0).netns, "ss", "-Htln", "sport = :" + port}, &sockets);
    EXPECT_NE(sockets.find(":" + port), std::string::npos) << "not listening on --port " << port;

    // Withdrawn, the service leaves B's list long before the 30 s a silent peer takes to go.
    const size_t before = b.eventCount();
    ASSERT_EQ(kill(a.pid(), signal), 0);
    EXPECT_TRUE(a.waitForExit(kDiscovery)) << "the service did not end";
    EXPECT_TRUE(a.count(event("exit")) == 1) << "the service did not stop in order";
    EXPECT_TRUE(waitForPeers(
        b, [&](const Json& peers) { return !peer(peers, nameA); }, before, std::chrono::seconds(10)))
        << "the service is still listed: it did not withdraw";
  }
}
