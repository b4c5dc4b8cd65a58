// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffManager.h"
#include "Foundation/QVMainQueue.h"
#include "Network/DNSSD/QVNetServiceBrowser.h"
#include "QVHandoff/QVHandoffiCloudDocumentsPresenter.h"
#include "support/QVStandInNetService.h"
#include "support/QVTestSupport.h"

#include <filesystem>

namespace {

// Service control of the shared manager. Storages have an empty service type, so a started service
// publishes and browses nothing.
class QVHandoffManagerTest : public ::testing::Test {
protected:
  void SetUp() override {
    QVHandoffiCloudDocumentsPresenter::resetForTesting();
    QVHandoffiCloudDocumentsPresenter::setContainerPath(folder_.path().string());
  }

  void TearDown() override {
    manager_->stopHandoffService();
    manager_->setMetaStorages({});
    manager_->setLocalDocumentsInfo(nullptr);
    manager_->setCurrentLocalDocumentIndex(0);
    QVHandoffiCloudDocumentsPresenter::resetForTesting();
  }

  static std::shared_ptr<QVHandoffMetaStorage> storage(const std::string& serviceType = "") {
    return QVTestMetaStorage(QVTestBytes(32), serviceType);
  }

  std::string TXT(const char* key) const {
    const auto dictionary = manager_->localServer()->TXTRecordDictionary();
    const auto found = dictionary.find(key);
    return found == dictionary.end() ? "<none>" : std::string(found->second.begin(), found->second.end());
  }
  // Whether `change` handed the server a new TXT record.
  bool refreshesTXT(const std::function<void()>& change) {
    manager_->localServer()->setTXTRecordDictionary({});
    change();
    return !manager_->localServer()->TXTRecordDictionary().empty();
  }

  QVTemporaryFolder folder_;
  const std::shared_ptr<QVHandoffManager> manager_ = QVHandoffManager::defaultManager();
  QVLogCapture log_;
};

TEST_F(QVHandoffManagerTest, StartNeedsAMasterStorageHappensOnceAndMetaChangesRestartIt) {
  manager_->startHandoffService();
  EXPECT_TRUE(log_.contains("Couldn't start handoff service without assigned meta storages", "error"));
  EXPECT_EQ(log_.lines().size(), 1u);
  EXPECT_FALSE(manager_->serviceStarted());

  // A change of a stopped service's storage starts nothing.
  const auto master = storage();
  manager_->setMetaStorages({master});
  manager_->metaDataStorageDidChange(master);
  QVMainQueue::main().drain();
  EXPECT_FALSE(manager_->serviceStarted());
  manager_->startHandoffService();
  manager_->startHandoffService();
  EXPECT_EQ(log_.count("Start handoff service"), 1u);
  EXPECT_TRUE(manager_->serviceStarted());
  EXPECT_FALSE(manager_->localServer()->isRunning()); // no service type: nothing published

  // Of a started one it restarts the service, deferred to the main queue, never on the caller's stack.
  manager_->metaDataStorageDidChange(master);
  EXPECT_EQ(log_.count("Stop handoff service"), 0u);
  EXPECT_TRUE(QVRunMainQueueUntil([&] { return log_.count("Start handoff service") == 2; }));
  EXPECT_EQ(log_.count("Stop handoff service"), 1u);
  manager_->setMetaStorages({storage()}); // a new list too
  EXPECT_TRUE(QVRunMainQueueUntil([&] { return log_.count("Start handoff service") == 3; }));

  manager_->stopHandoffService();
  manager_->stopHandoffService();
  EXPECT_EQ(log_.count("Stop handoff service"), 3u);
  EXPECT_FALSE(manager_->serviceStarted());
}

TEST_F(QVHandoffManagerTest, StartWaitsForTheCloudContainer) {
  const auto container = folder_.path() / "Container";
  QVHandoffiCloudDocumentsPresenter::setContainerPath(container.string());
  manager_->setMetaStorages({storage()});
  const auto accountChanged = [] {
    QVNotificationCenter::defaultCenter().post(QViCloudAccountStateDidChangeNotification,
                                               QVHandoffiCloudDocumentsPresenter::defaultPresenter().get());
  };

  manager_->startHandoffService();
  EXPECT_TRUE(
      log_.contains("iCloud is not configured on current machine, QVHandoff is unavailable!", "info"));
  EXPECT_TRUE(manager_->iCloudWasNotConfiguredOnServiceStart());
  EXPECT_FALSE(manager_->serviceStarted());
  accountChanged(); // still no container
  EXPECT_FALSE(manager_->serviceStarted());

  // A stop forgets the refused start.
  manager_->stopHandoffService();
  EXPECT_FALSE(manager_->iCloudWasNotConfiguredOnServiceStart());
  std::filesystem::create_directories(container);
  accountChanged();
  EXPECT_FALSE(manager_->serviceStarted());

  std::filesystem::remove(container);
  manager_->startHandoffService();
  std::filesystem::create_directories(container);
  accountChanged();
  EXPECT_TRUE(manager_->serviceStarted());
  EXPECT_FALSE(manager_->iCloudWasNotConfiguredOnServiceStart());
}

TEST_F(QVHandoffManagerTest, StorageListMakesOneBrowserEachAndOneMaster) {
  const QVHandoffManager::MetaStorageList storages = {storage("A"), storage("B"), storage("C")};
  manager_->setMetaStorages(storages);
  EXPECT_EQ(QVHandoffManager::serviceTypeFromStorage(*storages[0]), "_qvhandoffA._tcp");
  EXPECT_FALSE(QVHandoffManager::serviceTypeFromStorage(*storage()));
  ASSERT_EQ(manager_->serviceBrowsers().size(), 3u);
  EXPECT_EQ(manager_->masterStorage(), storages[0]);
  EXPECT_TRUE(storages[0]->master());
  EXPECT_FALSE(storages[1]->master() || storages[2]->master());
  for (size_t index = 0; index < 3; ++index) {
    EXPECT_EQ(storages[index]->delegate(), manager_);
    EXPECT_NE(manager_->serviceBrowsers()[index]->delegate(), nullptr); // the manager's registry
  }

  const auto browsers = manager_->serviceBrowsers();
  manager_->setMetaStorages(storages);
  EXPECT_EQ(manager_->serviceBrowsers(), browsers);

  const auto replacement = storage("D");
  manager_->setMetaStorages({replacement});
  EXPECT_EQ(manager_->serviceBrowsers().size(), 1u);
  EXPECT_EQ(manager_->masterStorage(), replacement);
  EXPECT_TRUE(storages[0]->master()); // once master, always master
  EXPECT_EQ(storages[0]->delegate(), nullptr);
  EXPECT_EQ(browsers[0]->delegate(), nullptr);
}

TEST_F(QVHandoffManagerTest, TXTRecordFollowsTheLocalDocuments) {
  const auto document = [](const std::string& path) {
    auto documentInfo = QVHandoffDocumentInfo::make();
    documentInfo->setFilePath(path);
    return documentInfo;
  };
  const auto list = [](QVHandoffManager::DocumentInfoList documentsInfo) {
    return std::make_shared<const QVHandoffManager::DocumentInfoList>(std::move(documentsInfo));
  };
  const std::string productName = QVHandoffManager::productName();
  QVHandoffManager::setProductName("Reader");

  const auto empty = list({});
  ASSERT_TRUE(refreshesTXT([&] { manager_->setLocalDocumentsInfo(empty); }));
  EXPECT_EQ(manager_->localServer()->TXTRecordDictionary().size(), 4u);
  EXPECT_EQ(TXT("hasDocs"), "0");
  EXPECT_EQ(TXT("deviceType"), "3");
  EXPECT_EQ(TXT("productName"), "Reader");
  EXPECT_EQ(TXT("dateMark").size(), 23u);
  EXPECT_FALSE(refreshesTXT([&] { manager_->setLocalDocumentsInfo(empty); }));

  // The marks a peer left on a document survive a new list with the same path.
  auto marked = document("/Docs/A.pdf");
  marked->setRemoteDeviceName("Studio");
  marked->setRemoteFilePath("/Handoff/A.pdf");
  manager_->setLocalDocumentsInfo(list({marked}));
  EXPECT_EQ(TXT("hasDocs"), "1");
  const auto same = document("/Docs/A.pdf");
  const auto other = document("/Docs/B.pdf");
  EXPECT_TRUE(refreshesTXT([&] { manager_->setLocalDocumentsInfo(list({other, same})); }));
  EXPECT_EQ(same->remoteDeviceName(), "Studio");
  EXPECT_EQ(same->remoteFilePath(), "/Handoff/A.pdf");
  EXPECT_FALSE(other->hasRemoteInfo());

  EXPECT_TRUE(refreshesTXT([&] { manager_->setCurrentLocalDocumentIndex(1); }));
  EXPECT_FALSE(refreshesTXT([&] { manager_->setCurrentLocalDocumentIndex(1); }));
  EXPECT_TRUE(refreshesTXT([&] { manager_->updateLocalDocumentsInfo(); }));

  // Without a service type there is nothing to publish: not even a refresh.
  manager_->setMetaStorages({storage()});
  EXPECT_FALSE(refreshesTXT([&] { manager_->startPublishing(); }));
  EXPECT_FALSE(manager_->localServer()->isRunning());
  QVHandoffManager::setProductName(productName);
}

} // namespace
