#include "Foundation/QVDateFormatting.h"
#include "Network/HTTPServer/QVHTTPServer.h"
#include "QVHandoff/QVHandoffServerInfo.h"
#include "QVHandoffServerFixture.h"
#include "support/QVStandInNetService.h"

namespace {

// A peer played by a local server on 127.0.0.1 (serving this manager's own documents) and a stand-in
// service whose resolve is answered by hand.
class TabsListFetchTest : public QVHandoffServerTest {
protected:
  void TearDown() override {
    const auto records = manager_->serversInfo();
    for (const auto& record : records)
      manager_->removeRemoteServerInfoForService(record->service());
    QVHandoffServerTest::TearDown();
  }

  // The peer is found, resolved to `port`, and its first tabs-list request goes out.
  std::shared_ptr<QVHandoffServerInfo> addPeer(const QVData& key, uint16_t port) {
    peer_->setTXTRecord({{"hasDocs", QVTXTValue("1")}, {"productName", QVTXTValue("Reader")}});
    manager_->addRemoteServerInfoForService(peer_, key);
    EXPECT_EQ(peer_->resolves, 1);
    peer_->setResolvedAddress("127.0.0.1", port);
    manager_->netServiceDidResolveAddress(peer_);
    return manager_->serverInfoForDeviceName("Studio");
  }

  // A TXT change of the peer, and the fetch it causes, taken in.
  void peerChangedTXT() {
    const size_t before = notifications(QVHandoffManagerDidUpdateServersInfoNotification).size();
    manager_->netServiceDidUpdateTXTRecordData(peer_, {});
    ASSERT_TRUE(QVRunMainQueueUntil(
        [&] { return notifications(QVHandoffManagerDidUpdateServersInfoNotification).size() > before; }));
  }

  const std::shared_ptr<QVStandInNetService> peer_ = std::make_shared<QVStandInNetService>("Studio");
};

TEST_F(TabsListFetchTest, ListIsFetchedDecryptedAndTakenIn) {
  auto report = document("Report.pdf", QVTestBytes(1000));
  report->setPageNumber(3);
  report->setPdfPoint({12.3, 4.5});
  auto notes = document("Notes.txt", QVTestBytes(10));
  auto draft = document("Draft.txt", QVTestBytes(20));
  open({report, notes, draft});
  manager_->setCurrentLocalDocumentIndex(1);

  const auto studio = addPeer(key_, server_.port());
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

  auto active = notifications(QVHandoffManagerDidChangeActiveRemoteDocumentNotification);
  ASSERT_EQ(active.size(), 1u);
  EXPECT_EQ(std::get<std::shared_ptr<QVHandoffDocumentInfo>>(
                active[0].userInfo.at(QVHandoffManagerDocumentInfoKey)),
            studio->documentsInfo()[1]);
  EXPECT_EQ(notifications(QVHandoffManagerDidUpdateServersInfoNotification).size(), 1u);

  // The same active path again: a new list, no new active-document notice.
  const auto firstList = studio->documentsInfo();
  peerChangedTXT();
  EXPECT_NE(studio->documentsInfo()[1], firstList[1]);
  EXPECT_EQ(notifications(QVHandoffManagerDidChangeActiveRemoteDocumentNotification).size(), 1u);

  manager_->setCurrentLocalDocumentIndex(2);
  peerChangedTXT();
  active = notifications(QVHandoffManagerDidChangeActiveRemoteDocumentNotification);
  ASSERT_EQ(active.size(), 2u);
  EXPECT_EQ(
      std::get<std::shared_ptr<QVHandoffDocumentInfo>>(active[1].userInfo.at(QVHandoffManagerDocumentInfoKey))
          ->filePath(),
      draft->filePath());

  // No active document at the peer.
  manager_->setCurrentLocalDocumentIndex(7);
  peerChangedTXT();
  EXPECT_EQ(studio->currentDocumentIndex(), QVNotFound);
}

TEST_F(TabsListFetchTest, UndecryptableListHidesThePeerWithoutRetry) {
  open({document("Report.pdf", QVTestBytes(10))});
  const auto studio = addPeer(QVTestBytes(32, 7), server_.port());
  ASSERT_TRUE(QVRunMainQueueUntil(
      [&] { return log_.contains("Couldn't decrypt tabs list response data", "error"); }));
  EXPECT_FALSE(studio->upToDate());
  EXPECT_TRUE(manager_->remoteServersInfo().empty());
  EXPECT_EQ(studio->tabsListRequestAttempt(), 1u);
  EXPECT_TRUE(notifications(QVHandoffManagerDidUpdateServersInfoNotification).empty());
}

TEST_F(TabsListFetchTest, FailingPeerGetsThreeRequestsPerTXTChange) {
  auto gone = document("Gone.pdf", QVTestBytes(10));
  std::filesystem::remove(gone->filePath());
  open({gone}); // the peer answers 500
  const auto studio = addPeer(key_, server_.port());
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return studio->tabsListRequestAttempt() == 4; }));
  EXPECT_EQ(log_.count("Tabs list (Studio) request"), 3u);
  EXPECT_TRUE(log_.contains("Tabs list (Studio) request (3) error Error Domain=QVURLErrorDomain Code=-1011",
                            "error"));

  // The peer recovers and says so with a new TXT record.
  open({document("Back.pdf", QVTestBytes(10))});
  peerChangedTXT();
  EXPECT_TRUE(studio->upToDate());
  EXPECT_EQ(studio->tabsListRequestAttempt(), 1u);
  EXPECT_EQ(studio->documentsInfo().size(), 1u);
}

TEST_F(TabsListFetchTest, RefusedConnectionResolvesThePeerAgain) {
  QVHTTPServer closed;
  closed.setInterface("127.0.0.1");
  ASSERT_TRUE(closed.start(nullptr));
  const uint16_t port = closed.port();
  closed.stop();

  const auto studio = addPeer(key_, port);
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return peer_->resolves == 2; }));
  const std::string address = "http://127.0.0.1:" + std::to_string(port);
  EXPECT_TRUE(log_.contains("Tabs list (Studio) request (1) error Error Domain=QVURLErrorDomain Code=-1004",
                            "error"));
  EXPECT_TRUE(log_.contains(
      "Resetting HTTPAddress " + address + " for service Studio to force service resolve.", "info"));
  EXPECT_TRUE(studio->HTTPAddress().empty());
  EXPECT_TRUE(studio->resolveInProgress());

  // Found again at its new port, with the next attempt.
  peer_->setResolvedAddress("127.0.0.1", server_.port());
  manager_->netServiceDidResolveAddress(peer_);
  ASSERT_TRUE(QVRunMainQueueUntil([&] { return studio->upToDate(); }));
  EXPECT_EQ(studio->tabsListRequestAttempt(), 2u);
}

} // namespace
