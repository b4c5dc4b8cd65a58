// SPDX-License-Identifier: MIT
#include "Foundation/QVDateFormatting.h"
#include "QVHandoffServerFixture.h"

namespace {

class TabsListTest : public QVHandoffServerTest {
protected:
  // A TXT change of the peer, and the fetch it causes, taken in.
  void peerChangedTXT(const std::shared_ptr<QVStandInNetService>& peer) {
    const size_t before = notifications(QVHandoffManagerDidUpdateServersInfoNotification).size();
    manager_->netServiceDidUpdateTXTRecordData(peer, {});
    ASSERT_TRUE(QVRunMainQueueUntil(
        [&] { return notifications(QVHandoffManagerDidUpdateServersInfoNotification).size() > before; }));
  }
  std::shared_ptr<QVHandoffDocumentInfo> activeDocument(size_t index) {
    return std::get<std::shared_ptr<QVHandoffDocumentInfo>>(
        notifications(QVHandoffManagerDidChangeActiveRemoteDocumentNotification)
            .at(index)
            .userInfo.at(QVHandoffManagerDocumentInfoKey));
  }
};

TEST_F(TabsListTest, ListsOpenDocumentsFreshFromDisk) {
  auto pdf = document("Report.pdf", QVTestBytes(1000));
  pdf->setPageNumber(3);
  pdf->setPdfPoint({12.5, 300});
  pdf->setICloudPath("/cloud/Report.pdf");
  pdf->setFileSize(1); // stale: refreshed by the request
  auto plain = document("Notes", QVTestBytes(10));
  plain->setPdfPoint({4, 4}); // no page: no position is sent at all
  auto typed = document("data.txt", QVTestBytes(5));
  typed->setContentType("text/x-custom");
  typed->setDropboxPath("/dropbox/data.txt");
  open({pdf, plain, typed, pdf});
  manager_->setCurrentLocalDocumentIndex(1);

  auto response = post("/api/tabs_list", QVTestBytes(100)); // a body is read and dropped
  ASSERT_EQ(response.status(), 200);
  EXPECT_EQ(response.header("content-encoding"), "x-quorvel-aes256");
  EXPECT_EQ(response.header("content-type"), "application/json");
  const auto tabs = decrypt(response.body);
  ASSERT_TRUE(tabs.is_array());
  ASSERT_EQ(tabs.size(), 4u);

  const auto pdfDate = QVHandoffManager::latestFileModificationDateForFileAtPath(pdf->filePath());
  EXPECT_EQ(tabs[0], nlohmann::json({{"filePath", pdf->filePath()},
                                     {"fileSize", 1000},
                                     {"fileModificationDate", QVFormatProtocolDate(*pdfDate)},
                                     {"contentType", "application/pdf"},
                                     {"pageNumber", 3},
                                     {"pdfPointX", 12.5},
                                     {"pdfPointY", 300.0},
                                     {"iCloudPath", "/cloud/Report.pdf"},
                                     {"active", 0}}));
  EXPECT_FALSE(tabs[1].contains("contentType"));
  EXPECT_FALSE(tabs[1].contains("pageNumber") || tabs[1].contains("pdfPointX") ||
               tabs[1].contains("pdfPointY"));
  EXPECT_EQ(tabs[1]["active"], 1);
  EXPECT_EQ(tabs[2]["contentType"], "text/x-custom");
  EXPECT_EQ(tabs[2]["dropboxPath"], "/dropbox/data.txt");
  // The same record twice: both take the "active" of its first position.
  EXPECT_EQ(tabs[3], tabs[0]);
  EXPECT_TRUE(log_.contains("File extension is empty and no content type specified!", "error"));

  // The records were refreshed in place.
  EXPECT_EQ(pdf->fileSize(), 1000u);
  EXPECT_EQ(pdf->fileModificationDate(), pdfDate);
  EXPECT_EQ(pdf->contentType(), "application/pdf");

  // An index past the list makes no document active.
  manager_->setCurrentLocalDocumentIndex(4);
  for (const auto& tab : decrypt(post("/api/tabs_list").body))
    EXPECT_EQ(tab["active"], 0);

  // Only an exact POST is routed.
  for (const char* path : {"/api/tabs_list?x=1", "/api/tabs_list/", "/api/tabs"})
    EXPECT_EQ(post(path).status(), 405) << path;
  EXPECT_EQ(perform({request("/api/tabs_list", {}, "GET")}).front().status(), 404);
}

TEST_F(TabsListTest, ListIsFetchedDecryptedAndTakenIn) {
  auto report = document("Report.pdf", QVTestBytes(1000));
  report->setPageNumber(3);
  report->setPdfPoint({12.3, 4.5});
  auto notes = document("Notes.txt", QVTestBytes(10));
  auto draft = document("Draft.txt", QVTestBytes(20));
  open({report, notes, draft});
  manager_->setCurrentLocalDocumentIndex(1);

  const auto peer = addPeer("Studio", key_, server_.port(), true);
  const auto studio = manager_->serverInfoForDeviceName("Studio");
  EXPECT_EQ(peer->resolves, 1);
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return studio->upToDate(); }));
  EXPECT_EQ(manager_->remoteServersInfo(), QVHandoffManager::ServerInfoList{studio});

  ASSERT_EQ(studio->documentsInfo().size(), 3u);
  const auto& remoteReport = *studio->documentsInfo()[0];
  EXPECT_EQ(remoteReport.filePath(), report->filePath());
  const auto reportDate = QVHandoffManager::latestFileModificationDateForFileAtPath(report->filePath());
  EXPECT_EQ(remoteReport.fileModificationDate(), QVParseProtocolDate(QVFormatProtocolDate(*reportDate)));
  EXPECT_EQ(remoteReport.pageNumber(), 3u);
  EXPECT_EQ(remoteReport.pdfPoint(), (QVPoint{double(12.3f), double(4.5f)}));
  EXPECT_EQ(remoteReport.parentServerInfo(), studio);
  EXPECT_EQ(remoteReport.productName(), "Reader");
  EXPECT_EQ(studio->currentDocumentIndex(), 1u);
  EXPECT_EQ(activeDocument(0), studio->documentsInfo()[1]);
  EXPECT_EQ(notifications(QVHandoffManagerDidUpdateServersInfoNotification).size(), 1u);

  // The same active path again: a new list, no new active-document notice.
  const auto firstList = studio->documentsInfo();
  peerChangedTXT(peer);
  EXPECT_NE(studio->documentsInfo()[1], firstList[1]);
  EXPECT_EQ(notifications(QVHandoffManagerDidChangeActiveRemoteDocumentNotification).size(), 1u);

  manager_->setCurrentLocalDocumentIndex(2);
  peerChangedTXT(peer);
  EXPECT_EQ(activeDocument(1)->filePath(), draft->filePath());

  // No active document at the peer.
  manager_->setCurrentLocalDocumentIndex(7);
  peerChangedTXT(peer);
  EXPECT_EQ(studio->currentDocumentIndex(), QVNotFound);
}

TEST_F(TabsListTest, AFailingPeerGetsThreeRequestsPerTXTChange) {
  EXPECT_EQ(decrypt(post("/api/tabs_list").body), nlohmann::json::array());
  // One bad document fails the whole list: the peer answers 500.
  auto gone = document("Gone.pdf", QVTestBytes(10));
  std::filesystem::remove(gone->filePath());
  open({document("Here.pdf", QVTestBytes(10)), gone});
  const auto peer = addPeer("Studio", key_, server_.port(), true);
  const auto studio = manager_->serverInfoForDeviceName("Studio");
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return studio->tabsListRequestAttempt() == 4; }));
  EXPECT_TRUE(log_.contains("Couldn't get file attributes due", "error"));
  EXPECT_EQ(log_.count("Tabs list (Studio) request"), 3u);
  EXPECT_TRUE(log_.contains("Tabs list (Studio) request (3) error Error Domain=QVURLErrorDomain Code=-1011",
                            "error"));
  open({QVHandoffDocumentInfo::make()});
  expectErrorAnswer(post("/api/tabs_list"));
  EXPECT_TRUE(log_.contains("File path is undefined", "error"));

  // The peer recovers and says so with a new TXT record.
  open({document("Back.pdf", QVTestBytes(10))});
  peerChangedTXT(peer);
  EXPECT_TRUE(studio->upToDate());
  EXPECT_EQ(studio->tabsListRequestAttempt(), 1u);
  EXPECT_EQ(studio->documentsInfo().size(), 1u);

  // An undecryptable list hides a peer, without a retry.
  addPeer("Attic", QVTestBytes(32, 7), server_.port(), true);
  const auto attic = manager_->serverInfoForDeviceName("Attic");
  ASSERT_TRUE(QVRunMainQueueUntil(
      [&] { return log_.contains("Couldn't decrypt tabs list response data", "error"); }));
  EXPECT_FALSE(attic->upToDate());
  EXPECT_EQ(attic->tabsListRequestAttempt(), 1u);
  EXPECT_EQ(manager_->remoteServersInfo(), QVHandoffManager::ServerInfoList{studio});
}

TEST_F(TabsListTest, RefusedConnectionResolvesThePeerAgain) {
  const uint16_t port = QVRawHTTPServer("").port(); // closed again at once
  const auto peer = addPeer("Studio", key_, port, true);
  const auto studio = manager_->serverInfoForDeviceName("Studio");
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return peer->resolves == 2; }));
  const std::string address = "http://127.0.0.1:" + std::to_string(port);
  EXPECT_TRUE(log_.contains("Tabs list (Studio) request (1) error Error Domain=QVURLErrorDomain Code=-1004",
                            "error"));
  EXPECT_TRUE(log_.contains(
      "Resetting HTTPAddress " + address + " for service Studio to force service resolve.", "info"));
  EXPECT_TRUE(studio->HTTPAddress().empty());
  EXPECT_TRUE(studio->resolveInProgress());

  // Found again at its new port, with the next attempt.
  peer->setResolvedAddress("127.0.0.1", server_.port());
  manager_->netServiceDidResolveAddress(peer);
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return studio->upToDate(); }));
  EXPECT_EQ(studio->tabsListRequestAttempt(), 2u);
}

} // namespace
