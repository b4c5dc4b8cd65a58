// SPDX-License-Identifier: MIT
#include "Foundation/QVLog.h"
#include "Foundation/QVMainQueue.h"
#include "Network/DNSSD/QVNetServiceBrowser.h"
#include "Network/HTTPClient/QVHTTPSessionManager.h"
#include "Network/HTTPClient/QVURLSessionDataTask.h"
#include "QVHandoff/QVHandoffManager.h"
#include "QVHandoff/QVHandoffServerInfo.h"
#include "support/QVStandInNetService.h"
#include "support/QVTestSupport.h"

namespace {

// The registry of a manager of the test's own, driven through the DNS-SD delegate operations the way
// browsers and services would. Its engine is a stand-in and the storages have no service type, so nothing
// is ever browsed; peers are stand-ins.
class QVHandoffManagerRegistryTest : public ::testing::Test {
protected:
  void SetUp() override {
    QVLogging::setLevel(spdlog::level::debug);
    manager_->setMetaStorages(storages_);
  }

  void TearDown() override {
    QVLogging::setLevel(logLevel_);
    const auto records = manager_->serversInfo();
    for (const auto& record : records)
      manager_->removeRemoteServerInfoForService(record->service());
    manager_->setMetaStorages({});
    manager_->localServer()->stop();
  }

  std::shared_ptr<QVStandInNetService> find(const std::string& name, const std::string& hasDocs,
                                            size_t browserIndex = 0) {
    auto service = std::make_shared<QVStandInNetService>(name);
    service->setTXTRecord({{"hasDocs", QVTXTValue(hasDocs)},
                           {"deviceType", QVTXTValue("3")},
                           {"productName", QVTXTValue("Reader")}});
    manager_->netServiceBrowserDidFindService(manager_->serviceBrowsers().at(browserIndex), service, false);
    return service;
  }

  // Requests to a closed loopback port; the tests never run the main queue, so no answer is taken in.
  void resolve(const std::shared_ptr<QVStandInNetService>& service, const std::string& host = "127.0.0.1",
               int64_t port = 9) {
    service->setResolvedAddress(host, port);
    manager_->netServiceDidResolveAddress(service);
  }

  std::shared_ptr<QVHandoffServerInfo> record(const std::string& name) const {
    return manager_->serverInfoForDeviceName(name);
  }

  const std::shared_ptr<QVStandInDNSSDEngine> engine_ = std::make_shared<QVStandInDNSSDEngine>();
  const std::shared_ptr<QVHTTPSessionManager> session_ = std::make_shared<QVHTTPSessionManager>();
  const std::shared_ptr<QVHandoffManager> manager_ = QVHandoffManager::make({engine_, session_});
  const spdlog::level::level_enum logLevel_ = QVLogging::level();
  const QVHandoffManager::MetaStorageList storages_ = {QVTestMetaStorage(QVTestBytes(32, 1)),
                                                       QVTestMetaStorage(QVTestBytes(32, 2))};
  QVLogCapture log_;
  size_t updates_ = 0;
  QVNotificationObservation updatesObservation_{
      QVNotificationCenter::defaultCenter(), QVHandoffManagerDidUpdateServersInfoNotification, manager_.get(),
      [this](const QVNotification&) { ++updates_; }};
};

TEST_F(QVHandoffManagerRegistryTest, FoundServicesBecomeOneRecordPerName) {
  // Our own publication comes back from the browser too.
  manager_->localServer()->netServiceDidPublish(std::make_shared<QVStandInNetService>("This Mac"));
  ASSERT_EQ(manager_->localServer()->publishedName(), "This Mac");
  auto own = find("This Mac", "1");
  EXPECT_TRUE(manager_->serversInfo().empty());

  auto first = find("Studio", "0", 0);
  auto second = find("Studio", "1", 1); // the same peer through the second storage's browser
  ASSERT_EQ(manager_->serversInfo().size(), 1u);
  EXPECT_EQ(record("Studio")->service(), first);
  EXPECT_EQ(record("Studio")->AES256Key(), storages_[0]->AES256Key());
  EXPECT_TRUE(first->monitoring && first->delegate());
  EXPECT_FALSE(second->monitoring || second->delegate());

  find("Attic", "0", 1);
  EXPECT_EQ(record("Attic")->AES256Key(), storages_[1]->AES256Key());
  EXPECT_TRUE(log_.contains("Added service \"Attic\"", "debug"));

  auto stray = std::make_shared<QVStandInNetService>("Cellar");
  manager_->netServiceBrowserDidFindService(std::make_shared<QVNetServiceBrowser>(nullptr), stray, false);
  EXPECT_TRUE(log_.contains("Couldn't find index of net service browser", "error"));
  EXPECT_EQ(record("Cellar"), nullptr);
  EXPECT_EQ(updates_, 0u); // nothing is shown before it is up to date
}

TEST_F(QVHandoffManagerRegistryTest, PeerWithoutDocumentsIsUpToDateWithoutARequest) {
  auto service = find("Studio", "0");
  auto studio = record("Studio");
  EXPECT_EQ(service->resolves, 1);
  EXPECT_EQ(service->resolveTimeout, std::chrono::seconds(30));
  EXPECT_TRUE(studio->resolveInProgress());
  EXPECT_EQ(studio->deviceType(), 3);
  EXPECT_EQ(studio->productName(), "Reader");

  // A TXT change while resolving starts no second resolve.
  manager_->netServiceDidUpdateTXTRecordData(service, {});
  EXPECT_EQ(service->resolves, 1);

  resolve(service, "Studio.local.", 8080);
  EXPECT_TRUE(log_.contains("Start resolving service \"Studio\"", "debug"));
  EXPECT_TRUE(log_.contains("Resolved address http://Studio.local:8080 for service \"Studio\"", "debug"));
  EXPECT_EQ(studio->HTTPAddress(), "http://Studio.local:8080");
  EXPECT_FALSE(studio->resolveInProgress());
  EXPECT_EQ(service->stops, 1);
  EXPECT_TRUE(studio->upToDate());
  EXPECT_TRUE(studio->documentsInfo().empty());
  EXPECT_EQ(studio->currentDocumentIndex(), QVNotFound);
  EXPECT_EQ(studio->tabsListRequestHTTPOperation(), nullptr);
  EXPECT_EQ(updates_, 1u);

  // Device type and product name are taken once; unreadable "hasDocs" text is false.
  service->setTXTRecord({{"hasDocs", QVTXTValue("yes")},
                         {"deviceType", QVTXTValue("7")},
                         {"productName", QVTXTValue("Other")}});
  manager_->netServiceDidUpdateTXTRecordData(service, {});
  EXPECT_EQ(studio->deviceType(), 3);
  EXPECT_EQ(studio->productName(), "Reader");
  EXPECT_FALSE(studio->hasOpenedDocuments());
  EXPECT_EQ(updates_, 2u);
}

TEST_F(QVHandoffManagerRegistryTest, HostSeesOnlyUpToDateRecords) {
  auto studio = find("Studio", "0");
  resolve(studio);
  auto attic = find("Attic", "0");
  resolve(attic);
  ASSERT_EQ(manager_->remoteServersInfo(),
            (QVHandoffManager::ServerInfoList{record("Studio"), record("Attic")}));

  // Studio opens a document: hidden while its tabs list is on its way, without a notification.
  studio->setTXTRecord({{"hasDocs", QVTXTValue("1")}});
  const size_t updatesBefore = updates_;
  manager_->netServiceDidUpdateTXTRecordData(studio, {});
  EXPECT_NE(record("Studio")->tabsListRequestHTTPOperation(), nullptr);
  EXPECT_EQ(manager_->remoteServersInfo(), QVHandoffManager::ServerInfoList{record("Attic")});
  EXPECT_EQ(updates_, updatesBefore);

  // And closes it again before the answer came: the answer may not bring it back.
  const auto request = record("Studio")->tabsListRequestHTTPOperation();
  studio->setTXTRecord({{"hasDocs", QVTXTValue("0")}});
  manager_->netServiceDidUpdateTXTRecordData(studio, {});
  EXPECT_EQ(request->state(), QVURLSessionDataTask::State::Canceling);
  EXPECT_EQ(manager_->remoteServersInfo().size(), 2u);
}

TEST_F(QVHandoffManagerRegistryTest, FilteredCopiesForTheHost) {
  EXPECT_FALSE(manager_->remoteServersInfoPassingTest(nullptr));
  resolve(find("Studio", "0"));
  auto studio = record("Studio");
  QVHandoffManager::DocumentInfoList documentsInfo;
  for (const char* path : {"/a.pdf", "/b.pdf", "/c.pdf"}) {
    documentsInfo.push_back(QVHandoffDocumentInfo::make());
    documentsInfo.back()->setFilePath(path);
  }
  studio->setDocumentsInfo(documentsInfo);
  studio->setCurrentDocumentIndex(2);

  const auto rejecting = [](uint64_t rejected) {
    return [rejected](const std::shared_ptr<QVHandoffDocumentInfo>&, uint64_t index, bool*) {
      return index != rejected;
    };
  };
  auto copies = *manager_->remoteServersInfoPassingTest(rejecting(0));
  ASSERT_EQ(copies.size(), 1u);
  EXPECT_NE(copies[0], studio);
  ASSERT_EQ(copies[0]->documentsInfo().size(), 2u);
  EXPECT_EQ(copies[0]->documentsInfo()[0]->filePath(), "/b.pdf");
  EXPECT_EQ(copies[0]->currentDocumentIndex(), 2u); // not shifted
  EXPECT_TRUE(copies[0]->filtered());
  // Snapshots: their own documents, the live record's service (so its device name), and no key to talk
  // to the peer with.
  EXPECT_NE(copies[0]->documentsInfo()[0], studio->documentsInfo()[1]);
  EXPECT_EQ(copies[0]->deviceName(), "Studio");
  EXPECT_TRUE(copies[0]->AES256Key().empty());
  EXPECT_FALSE(copies[0]->AES256EncryptedDataWithJSONObject({{"filePath", "/b.pdf"}}));
  EXPECT_TRUE(studio->AES256EncryptedDataWithJSONObject({{"filePath", "/b.pdf"}}));
  EXPECT_EQ(studio->documentsInfo().size(), 3u);
  EXPECT_FALSE(studio->filtered());

  copies = *manager_->remoteServersInfoPassingTest(rejecting(2));
  EXPECT_EQ(copies[0]->currentDocumentIndex(), QVNotFound);

  // Stopping keeps what was taken so far and marks nothing.
  copies = *manager_->remoteServersInfoPassingTest(
      [](const std::shared_ptr<QVHandoffDocumentInfo>&, uint64_t, bool* stop) { return *stop = true; });
  EXPECT_EQ(copies[0]->documentsInfo().size(), 1u);
  EXPECT_FALSE(copies[0]->filtered());
  EXPECT_EQ(copies[0]->currentDocumentIndex(), 2u);

  // A host-held document finds its live record and its current entry by device name.
  auto held = copies[0]->documentsInfo()[0];
  held->setDeviceName("Studio");
  EXPECT_EQ(manager_->identifyServerInfoForDocumentInfo(*held), studio);
}

TEST_F(QVHandoffManagerRegistryTest, VanishedPeersLeaveTheRegistry) {
  auto studio = find("Studio", "1");
  resolve(studio);
  const auto request = record("Studio")->tabsListRequestHTTPOperation();
  auto attic = find("Attic", "0");

  // A second browser's own object for the same name removes the record and silences both objects.
  auto echo = std::make_shared<QVStandInNetService>("Studio");
  manager_->netServiceBrowserDidRemoveService(manager_->serviceBrowsers()[1], echo, false);
  EXPECT_EQ(record("Studio"), nullptr);
  EXPECT_TRUE(log_.contains("Removed service \"Studio\"", "debug"));
  EXPECT_EQ(request->state(), QVURLSessionDataTask::State::Canceling);
  EXPECT_FALSE(studio->monitoring || studio->delegate());
  EXPECT_EQ(updates_, 1u);

  manager_->netServiceBrowserDidRemoveService(manager_->serviceBrowsers()[0], echo, false);
  EXPECT_EQ(updates_, 1u);

  manager_->netServiceDidNotResolve(attic, QVNetService::errorDictionary(-15));
  EXPECT_TRUE(log_.contains(
      "Couldn't resolve service \"Attic\" due Error Domain=QVNetServicesErrorDomain Code=-15", "error"));
  EXPECT_TRUE(manager_->serversInfo().empty());
  EXPECT_EQ(updates_, 2u);

  manager_->netServiceBrowserDidNotSearch(manager_->serviceBrowsers()[0], QVNetService::errorDictionary(-26));
  EXPECT_TRUE(
      log_.contains("Service browser search error Error Domain=QVNetServicesErrorDomain Code=-26", "error"));
}

// The manager reaches DNS-SD and HTTP only through what it was built with.
TEST_F(QVHandoffManagerRegistryTest, UsesThePlatformItWasBuiltWith) {
  EXPECT_EQ(&manager_->HTTPSessionManager(), session_.get());
  EXPECT_EQ(engine_->requests, 0); // nothing is asked of DNS-SD before it is needed

  auto typed = QVTestMetaStorage(QVTestBytes(32, 3));
  typed->setServiceType("5A0F3C1E-0000-4000-8000-000000000001");
  manager_->setMetaStorages({typed, storages_[0]});
  ASSERT_EQ(manager_->serviceBrowsers().size(), 2u);
  manager_->startBrowsing();
  EXPECT_EQ(engine_->requests, 1); // the one storage with a type
  manager_->localServer()->setType(*QVHandoffManager::serviceTypeFromStorage(*typed));
  QVError error;
  ASSERT_TRUE(manager_->localServer()->start(&error)) << error.description();
  EXPECT_EQ(engine_->requests, 2);

  // The engine's refusal reaches the registry's browser on the main queue.
  const bool reported = QVMainQueue::main().runUntil(
      [&] { return log_.contains("Service browser search error", "error"); }, std::chrono::seconds(5));
  EXPECT_TRUE(reported);
  EXPECT_TRUE(log_.contains("Couldn't publish service", "error"));
}

TEST_F(QVHandoffManagerRegistryTest, ManagersMadeWithoutAPlatformTakeTheFactorysAndKeepTheirOwnPeers) {
  int made = 0;
  QVHandoffPlatform::setFactory([&] {
    ++made;
    return QVHandoffPlatform{engine_, session_};
  });
  const auto other = QVHandoffManager::make();
  QVHandoffPlatform::setFactory({});
  EXPECT_EQ(made, 1);
  EXPECT_EQ(&other->HTTPSessionManager(), session_.get());

  other->setMetaStorages(storages_);
  find("Studio", "0");
  EXPECT_NE(record("Studio"), nullptr);
  EXPECT_TRUE(other->serversInfo().empty());
  other->setMetaStorages({});

  // Without an HTTP client a manager gets one of its own.
  const auto bare = QVHandoffManager::make(QVHandoffPlatform{engine_, nullptr});
  EXPECT_NE(&bare->HTTPSessionManager(), session_.get());
}

// Failing the transfers of a removed peer needs records in the transfer sets, which only the transfer
// operations put there; that case is tested with them.

} // namespace
