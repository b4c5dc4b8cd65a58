// SPDX-License-Identifier: MIT
// A document's whole trip between two installations of the host: handoff, edit, save back, a save back
// after both sides changed it, and a copy pushed back at its origin's request.

#include "QVHostsFixture.h"

using namespace QVHosts;

namespace {

// Bounds: a few bytes travel in milliseconds once the peers know each other.
constexpr std::chrono::milliseconds kTransfer{30000};

std::string contents(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

void write(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

QVChildProcess::Match saveBackOf(const std::string& copy) {
  return [=](const Json& e) { return e.value("event", "") == "saveBackCompleted" && e["copy"] == copy; };
}

} // namespace

class HostTransfersTest : public QVHostsFixture {};

TEST_F(HostTransfersTest, HandoffEditSaveBackConflictMarkAndForceSaveBack) {
  ASSERT_TRUE(makeHosts(2));
  const std::string original = document(0, "My Report.txt", "version 1 from A\n");
  auto& a = serve(0, {original}, container());
  const std::string nameA = publishedName(a);
  auto& b = serve(1, {}, container());
  const std::string nameB = publishedName(b);
  ASSERT_FALSE(nameA.empty() || nameB.empty()) << "a host was not published";
  ASSERT_TRUE(waitForPeers(b, lists(nameA, {original}, 0))) << "B never listed A's document";
  ASSERT_TRUE(waitForPeers(a, [&](const Json& peers) { return peer(peers, nameB) != nullptr; }))
      << "A never listed B";

  // Handoff: B gets a tagged copy in its own cache folder; A is told which document leaves.
  b.send("get " + quoted(nameA) + " " + quoted(original));
  const auto handedOff = b.waitFor(event("handoffCompleted"), kTransfer);
  ASSERT_TRUE(handedOff) << "the handoff did not complete";
  const std::string copy = (*handedOff)["localPath"];
  EXPECT_EQ(contents(copy), "version 1 from A\n");
  EXPECT_EQ(copy.rfind(work_.file("cache-B/com.quorvel.handoff/"), 0), 0u) << copy;
  EXPECT_TRUE(a.waitFor(notification("QVHandoffManagerWillHandoffLocalDocumentNotification",
                                     "QVHandoffManagerFilePathKey", original),
                        kTransfer));
  std::string info;
  ASSERT_EQ(oneShot(1, {"info", copy}, &info), 0);
  const Json tags = Json::parse(info, nullptr, false);
  EXPECT_EQ(tags["path"], original);
  EXPECT_EQ(tags["device"], nameA);
  EXPECT_EQ(tags["size"], 17);
  EXPECT_EQ(tags["productName"], "Host A");

  // Edit and save back: the copy replaces the original, and both sides hear of it.
  write(copy, "version 2 edited on B\n");
  size_t mark = a.eventCount();
  b.send("save-back " + quoted(copy));
  const auto saved = b.waitFor(saveBackOf(copy), kTransfer);
  ASSERT_TRUE(saved) << "the save back did not complete";
  EXPECT_EQ((*saved)["path"], original);
  EXPECT_EQ(contents(original), "version 2 edited on B\n");
  EXPECT_TRUE(b.waitFor(notification("QVHandoffManagerWillSaveBackLocalDocumentNotification",
                                     "QVHandoffManagerFilePathKey", copy),
                        kTransfer));
  EXPECT_TRUE(a.waitFor(notification("QVHandoffManagerWillSaveBackRemoteDocumentNotification",
                                     "QVHandoffManagerOriginalFilePathKey", original),
                        kTransfer, mark));
  EXPECT_TRUE(a.waitFor(
      notification("QVHandoffManagerSaveBackFileProgressNotification", "QVHandoffManagerProgressKey", 1.0),
      kTransfer, mark));
  EXPECT_TRUE(a.waitFor(notification("QVHandoffManagerDidSaveBackRemoteDocumentNotification",
                                     "QVHandoffManagerFilePathKey", original),
                        kTransfer, mark));

  // Both sides changed it since: the copy lands beside the original under a new name, and neither is lost.
  write(original, "version 3, changed on A meanwhile\n");
  write(copy, "version 3, changed on B\n");
  mark = a.eventCount();
  const size_t markB = b.eventCount();
  b.send("save-back " + quoted(copy));
  const auto beside = b.waitFor(saveBackOf(copy), kTransfer, markB);
  ASSERT_TRUE(beside) << "the second save back did not complete";
  const std::string sibling = (*beside)["path"];
  EXPECT_EQ(sibling, work_.file("documents-A/My Report 2.txt"));
  EXPECT_EQ(contents(original), "version 3, changed on A meanwhile\n");
  EXPECT_EQ(contents(sibling), "version 3, changed on B\n");
  const auto landed = a.waitFor(notification("QVHandoffManagerDidSaveBackRemoteDocumentNotification",
                                             "QVHandoffManagerFilePathKey", sibling),
                                kTransfer, mark);
  ASSERT_TRUE(landed);
  EXPECT_EQ((*landed)["userInfo"]["QVHandoffManagerOriginalFilePathKey"], original);

  // A fresh copy, by the one-shot form, is edited and marked as modified; A asks for it and B pushes it.
  std::string output;
  ASSERT_EQ(oneShot(1, {"get", nameA, original, "--wait", "20"}, &output), 0);
  const std::string fresh = output.substr(0, output.find('\n'));
  EXPECT_NE(fresh, copy);
  EXPECT_EQ(contents(fresh), "version 3, changed on A meanwhile\n");
  write(fresh, "version 4 from B, pushed back on request\n");
  // The one-shot form reaches A as well, under the name it was published with.
  mark = a.eventCount();
  ASSERT_EQ(oneShot(1, {"mark-modified", fresh, "--wait", "20"}, &output), 0);
  EXPECT_TRUE(a.waitFor(notification("QVHandoffManagerDidMarkLocalFileAsModifiedNotification",
                                     "QVHandoffManagerFilePathKey", original),
                        kTransfer, mark))
      << "A was not told of the modified copy by the one-shot command";
  // The path takes the rest of the line: no quotes needed for its blanks.
  mark = a.eventCount();
  b.send("mark-modified " + fresh);
  const auto marked = a.waitFor(notification("QVHandoffManagerDidMarkLocalFileAsModifiedNotification",
                                             "QVHandoffManagerFilePathKey", original),
                                kTransfer, mark);
  ASSERT_TRUE(marked) << "A was not told of the modified copy";
  EXPECT_EQ((*marked)["userInfo"]["QVHandoffManagerDeviceNameKey"], nameB);
  EXPECT_EQ((*marked)["userInfo"]["QVHandoffManagerDeviceTypeKey"], 3);

  a.send("force-save-back " + quoted(original));
  EXPECT_TRUE(b.waitFor(notification("QVHandoffManagerRequestsForceSaveBackRemoteFileNotification",
                                     "QVHandoffManagerFilePathKey", fresh),
                        kTransfer));
  const auto pushed = b.waitFor(saveBackOf(fresh), kTransfer);
  ASSERT_TRUE(pushed) << "B did not push the copy back";
  EXPECT_EQ((*pushed)["path"], original);
  EXPECT_EQ(contents(original), "version 4 from B, pushed back on request\n");

  // The save back cleared the mark: nothing is left to ask for.
  mark = a.eventCount();
  a.send("force-save-back " + quoted(original));
  const auto refused = a.waitFor(event("error"), kTransfer, mark);
  ASSERT_TRUE(refused);
  EXPECT_EQ((*refused)["command"], "force-save-back");
}
