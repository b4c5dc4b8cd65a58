// SPDX-License-Identifier: MIT
#include "Foundation/QVMainQueue.h"
#include "QVHandoff/QVHandoffManager.h"
#include "QVHandoff/QVHandoffServerInfo.h"
#include "QVHandoff/QVHandoffiCloudDocumentsPresenter.h"
#include "support/QVHostLoop.h"
#include "support/QVPrivateCachesEnvironment.h"
#include "support/QVStandInNetService.h"
#include "support/QVTestSupport.h"

#include <filesystem>

using namespace std::chrono_literals;

namespace {

// Managers of their own (not the shared one), each serving its documents on the loopback, where the
// server is not announced: no DNS-SD. Peers are given their address directly.
class ServiceControlTest : public ::testing::Test {
protected:
  void SetUp() override {
    QVHandoffiCloudDocumentsPresenter::resetForTesting();
    QVHandoffiCloudDocumentsPresenter::setContainerPath(folder_.path().string());
    std::filesystem::create_directories(docs_);
  }
  void TearDown() override {
    for (const auto& manager : managers_)
      manager->stopHandoffService();
    managers_.clear();
    QVMainQueue::main().setDispatcher({});
    QVHandoffiCloudDocumentsPresenter::resetForTesting();
  }

  std::shared_ptr<QVHandoffManager> startedManager(const std::vector<std::string>& documents = {}) {
    auto manager = QVHandoffManager::make();
    managers_.push_back(manager);
    manager->localServer()->setInterface("127.0.0.1");
    storage_ = QVTestMetaStorage(key_, "5E77C0DE");
    manager->setMetaStorages({storage_});
    auto list = std::make_shared<QVHandoffManager::DocumentInfoList>();
    for (const auto& name : documents) {
      const std::string path = (docs_ / name).string();
      QVWriteFile(path, QVTestBytes(1000 + list->size(), static_cast<uint32_t>(name.size())));
      auto documentInfo = QVHandoffDocumentInfo::make();
      documentInfo->setFilePath(path);
      list->push_back(documentInfo);
    }
    manager->setLocalDocumentsInfo(list);
    manager->startHandoffService();
    EXPECT_TRUE(manager->localServer()->isRunning());
    return manager;
  }

  // `client` finds the device `name` with documents, resolved to `port` on the loopback.
  void addPeer(QVHandoffManager& client, const std::string& name, uint16_t port) {
    auto peer = std::make_shared<QVStandInNetService>(name);
    peer->setTXTRecord({{"hasDocs", QVTXTValue("1")}, {"productName", QVTXTValue("Reader")}});
    client.addRemoteServerInfoForService(peer, key_);
    peer->setResolvedAddress("127.0.0.1", port);
    client.netServiceDidResolveAddress(peer);
  }

  // A manager of the host's that has listed `origin`'s documents as those of the device "Origin".
  std::shared_ptr<QVHandoffManager> clientListing(QVHandoffManager& origin, QVHostLoop& loop) {
    auto client = QVHandoffManager::make();
    managers_.push_back(client);
    addPeer(*client, "Origin", origin.localServer()->port());
    EXPECT_TRUE(loop.runUntil([&] { return !listedPaths(*client, "Origin").empty(); }));
    return client;
  }

  static std::vector<std::string> listedPaths(const QVHandoffManager& client, const std::string& device) {
    std::vector<std::string> paths;
    for (const auto& server : client.remoteServersInfo()) {
      if (server->deviceName() != device) continue;
      for (const auto& documentInfo : server->documentsInfo())
        paths.push_back(documentInfo->filePath());
    }
    return paths;
  }

  QVTemporaryFolder folder_;
  const std::filesystem::path docs_ = folder_.path() / "docs";
  const QVData key_ = QVTestBytes(32, 7);
  std::shared_ptr<QVHandoffMetaStorage> storage_;
  std::vector<std::shared_ptr<QVHandoffManager>> managers_;
  QVLogCapture log_;
};

TEST_F(ServiceControlTest, HostLoopHandsOffSavesBackAndStopsFromInsideASaveBackObserver) {
  const auto loop = QVHostLoop::install(); // before the host makes anything
  const auto origin = startedManager({"Report.pdf"});
  const auto client = clientListing(*origin, *loop);
  ASSERT_EQ(listedPaths(*client, "Origin").size(), 1u);

  const auto record = client->remoteServersInfo().front()->documentsInfo().front();
  std::vector<std::string> copies;
  std::vector<QVError> errors;
  client->handoffRemoteDocumentWithInfo(
      record, [](float) {}, [&](const std::string& path) { copies.push_back(path); },
      [&](const QVError& error) { errors.push_back(error); });
  ASSERT_TRUE(loop->runUntil([&] { return !copies.empty() || !errors.empty(); }));
  ASSERT_EQ(copies.size(), 1u);
  EXPECT_TRUE(QVReadFile(copies[0]) == QVReadFile(record->filePath()));

  // The host switches handoff off while the origin's connection waits for this very observer.
  int progressNotices = 0;
  QVNotificationObservation stopOnProgress(QVNotificationCenter::defaultCenter(),
                                           QVHandoffManagerSaveBackFileProgressNotification, origin.get(),
                                           [&](const QVNotification&) {
                                             if (++progressNotices == 1) origin->stopHandoffService();
                                           });
  const QVData edited = QVTestBytes(3 * 1024 * 1024, 99);
  QVWriteFile(copies[0], edited);
  bool ended = false;
  client->saveBackFileAtPath(
      copies[0], record, [](float) {}, [&](const std::string&) { ended = true; },
      [&](const QVError&) { ended = true; });
  ASSERT_TRUE(loop->runUntil([&] { return ended; }));
  // Its end is taken in on the loop too; until then the transfer holds the client.
  EXPECT_TRUE(loop->runUntil([&] { return client->saveBackDocumentsInfo().empty(); }));
  EXPECT_GE(progressNotices, 1);
  EXPECT_FALSE(origin->serviceStarted());
  EXPECT_FALSE(origin->localServer()->isRunning());
  // The stopped server's connections close without the loop: nothing is left waiting on it.
  EXPECT_TRUE(loop->runUntil([&] { return origin->localServer()->numberOfHTTPConnections() == 0; }));

  // And it starts again at once.
  origin->startHandoffService();
  ASSERT_TRUE(origin->localServer()->isRunning());
  EXPECT_EQ(log_.count("Start handoff service"), 2u);
}

TEST_F(ServiceControlTest, MetaChangeDuringAStopRestartsTheServiceOnce) {
  const auto loop = QVHostLoop::install(); // before the host makes anything
  const auto origin = startedManager({"Notes.pdf"});
  const auto client = clientListing(*origin, *loop);
  ASSERT_EQ(listedPaths(*client, "Origin").size(), 1u);
  const auto record = client->remoteServersInfo().front()->documentsInfo().front();
  const uint16_t oldPort = origin->localServer()->port();

  // A save back is in progress on the origin, its connection waiting on the host's loop, when the key
  // changes and then the host stops the service.
  bool changed = false;
  QVNotificationObservation changeOnProgress(
      QVNotificationCenter::defaultCenter(), QVHandoffManagerSaveBackFileProgressNotification, origin.get(),
      [&](const QVNotification&) {
        if (std::exchange(changed, true)) return;
        origin->metaDataStorageDidChange(storage_);
        origin->stopHandoffService();
        EXPECT_FALSE(origin->serviceStarted()); // the queued restart does not run inside the stop
      });
  const std::string copy = folder_.file("Copy.pdf");
  QVWriteFile(copy, QVTestBytes(2 * 1024 * 1024, 5));
  bool ended = false;
  client->saveBackFileAtPath(
      copy, record, [](float) {}, [&](const std::string&) { ended = true; },
      [&](const QVError&) { ended = true; });
  ASSERT_TRUE(loop->runUntil(
      [&] { return ended && origin->serviceStarted() && client->saveBackDocumentsInfo().empty(); }));
  loop->runUntil([] { return false; }, 300ms); // a second restart would show by now
  EXPECT_EQ(log_.count("Start handoff service"), 2u);
  EXPECT_EQ(log_.count("Stop handoff service"), 1u);
  EXPECT_TRUE(origin->serviceStarted());
  ASSERT_TRUE(origin->localServer()->isRunning());
  EXPECT_NE(origin->localServer()->port(), oldPort);
}

TEST_F(ServiceControlTest, TwoManagersInOneProcessServeTheirOwnTabsLists) {
  const auto first = startedManager({"First A.pdf", "First B.txt"});
  const auto second = startedManager({"Second.pdf"});
  const auto client = QVHandoffManager::make();
  managers_.push_back(client);
  addPeer(*client, "First", first->localServer()->port());
  addPeer(*client, "Second", second->localServer()->port());
  ASSERT_TRUE(QVRunMainQueueUntil([&] {
    return listedPaths(*client, "First").size() == 2 && listedPaths(*client, "Second").size() == 1;
  }));
  EXPECT_EQ(listedPaths(*client, "First"),
            (std::vector<std::string>{(docs_ / "First A.pdf").string(), (docs_ / "First B.txt").string()}));
  EXPECT_EQ(listedPaths(*client, "Second"), std::vector<std::string>{(docs_ / "Second.pdf").string()});

  // A server whose manager is gone answers 500 rather than serve another manager's documents.
  auto gone = QVHandoffManager::make();
  const auto server = gone->localServer();
  server->setInterface("127.0.0.1");
  ASSERT_TRUE(server->start(nullptr));
  gone.reset();
  addPeer(*client, "Gone", server->port());
  EXPECT_TRUE(QVRunMainQueueUntil(
      [&] { return log_.contains("Couldn't serve /api/tabs_list without its manager", "error"); }));
  EXPECT_TRUE(listedPaths(*client, "Gone").empty());
  server->stop();
}

} // namespace
