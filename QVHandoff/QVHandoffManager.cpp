// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffManager.h"

#include "Foundation/QVLog.h"
#include "Foundation/QVMainQueue.h"
#include "Network/HTTPClient/QVHTTPSessionManager.h"
#include "QVHandoff/QVHandoffPaths.h"
#include "QVHandoff/QVHandoffSaveBackReceiver.h"
#include "QVHandoff/QVHandoffServerInfo.h"
#include "QVHandoff/QVHandoffiCloudDocumentsPresenter.h"

#include <fstream>

QV_LOG_SOURCE("QVHandoff/QVHandoffManager")

namespace {

constexpr int64_t kDesktopDeviceType = 3;

struct ProductNameSlot {
  std::mutex mutex;
  std::optional<std::string> name;
};

ProductNameSlot& productNameSlot() {
  static ProductNameSlot slot;
  return slot;
}

// Peers show this name next to the device: a host that never set one still gets its program's name.
std::string programName() {
  std::ifstream comm("/proc/self/comm");
  std::string name;
  std::getline(comm, name);
  return name.empty() ? "QVHandoff" : name;
}

} // namespace

QVHandoffManager::QVHandoffManager(QVHandoffPlatform platform)
    : platform_(std::move(platform)), copyFileBlock_(QVHandoffManagerDefaultCopyFileBlock),
      moveFileBlock_(QVHandoffManagerDefaultMoveFileBlock),
      fileAttributesBlock_(QVHandoffManagerDefaultFileAttributesBlock) {}

std::shared_ptr<QVHandoffManager> QVHandoffManager::make(QVHandoffPlatform platform) {
  if (!platform.HTTPSessionManager) platform.HTTPSessionManager = std::make_shared<QVHTTPSessionManager>();
  auto manager = std::make_shared<QVHandoffManager>(std::move(platform));
  // These steps need the manager's shared owner, which the constructor does not have yet. A fresh list
  // refreshes the TXT record, and that makes the local server.
  manager->registry_ = std::make_shared<QVHandoffPeerRegistry>(
      manager->platform_.DNSSDEngine, manager->platform_.HTTPSessionManager,
      std::weak_ptr<QVHandoffPeerRegistry::Owner>(manager));
  manager->localServer()->setDNSSDEngine(manager->platform_.DNSSDEngine);
  {
    std::lock_guard lock(manager->localDocumentsMutex_);
    manager->localDocumentsInfo_ = std::make_shared<const DocumentInfoList>();
  }
  manager->updateLocalServerTXTData();
  manager->accountStateObservation_ = QVNotificationObservation(
      QVNotificationCenter::defaultCenter(), QViCloudAccountStateDidChangeNotification, nullptr,
      [weak = std::weak_ptr<QVHandoffManager>(manager)](const QVNotification&) {
        if (auto manager = weak.lock()) manager->iCloudAccountStateDidChangeNotification();
      });
  return manager;
}

std::shared_ptr<QVHandoffManager> QVHandoffManager::defaultManager() {
  // Never destroyed: connection and DNS-SD threads may still call into it while the process exits.
  static const auto* shared = new std::shared_ptr<QVHandoffManager>(make(QVHandoffPlatform::make()));
  return *shared;
}

QVHandoffManager::~QVHandoffManager() {
  accountStateObservation_ = {};
  // The registry no longer reaches its owner from here on: the transfers with its peers fail now.
  if (serviceStarted_ && registry_) {
    for (const auto& serverInfo : registry_->serversInfo())
      stopAllOperationsForServerWithInfo(serverInfo);
  }
  invalidateMetaStoragesRelatedData();
  stopHandoffService();
  if (localServer_) localServer_->setDelegate(nullptr);
}

QVError QVHandoffManager::internalError() {
  return QVError{QVHandoffErrorDomain, 0, {}};
}

// MARK: Meta storages

void QVHandoffManager::setMetaStorages(MetaStorageList metaStorages) {
  QV_ASSERT_MAIN_THREAD();
  std::erase(metaStorages, nullptr);
  if (metaStorages == metaStorages_) return;
  invalidateMetaStoragesRelatedData();
  metaStorages_ = std::move(metaStorages);
  initMetaStoragesRelatedData();
  restartServiceIfNeeded();
}

void QVHandoffManager::initMetaStoragesRelatedData() {
  for (size_t index = 0; index < metaStorages_.size(); ++index) {
    const auto& storage = metaStorages_[index];
    if (index == 0) {
      storage->setMaster(true);
      masterStorage_ = storage;
    }
    storage->setDelegate(weak_from_this());
  }
  registry_->setMetaStorages(metaStorages_);
}

void QVHandoffManager::invalidateMetaStoragesRelatedData() {
  for (const auto& storage : metaStorages_)
    storage->setDelegate({});
  if (registry_) registry_->setMetaStorages({});
  // The old master keeps its flag: a storage once made master stays so.
  masterStorage_.reset();
  metaStorages_.clear();
}

void QVHandoffManager::metaDataStorageDidChange(const std::shared_ptr<QVHandoffMetaStorage>&) {
  restartServiceIfNeeded();
}

// MARK: Service control

void QVHandoffManager::startHandoffService() {
  QV_ASSERT_MAIN_THREAD();
  if (!QVHandoffiCloudDocumentsPresenter::isiCloudConfigured()) {
    QV_LOG_INFO("iCloud is not configured on current machine, QVHandoff is unavailable!");
    iCloudWasNotConfiguredOnServiceStart_ = true;
    return;
  }
  if (!masterStorage_) {
    QV_LOG_ERROR("Couldn't start handoff service without assigned meta storages");
    return;
  }
  if (serviceStarted_) return;
  serviceStarted_ = true;
  iCloudWasNotConfiguredOnServiceStart_ = false;
  QV_LOG_INFO("Start handoff service");
  QVHandoffSaveBackReceiver::sweepLeftovers();
  QVHandoffPaths::sweepPartialDownloads(handoffDirectoryPath());
  // Started but silent until the master storage has a service type; its arrival restarts the service.
  if (masterStorage_->serviceType().empty()) return;
  localServer()->setAES256Key(masterStorage_->AES256Key());
  // Browsing follows once the publication is confirmed, so that the own name is known by then.
  startPublishing();
}

void QVHandoffManager::stopHandoffService() {
  QV_ASSERT_MAIN_THREAD();
  iCloudWasNotConfiguredOnServiceStart_ = false;
  if (!serviceStarted_) return;
  QV_LOG_INFO("Stop handoff service");
  serviceStarted_ = false;
  stopPublishing();
  stopBrowsing();
  registry_->removeAllServersInfo();
}

void QVHandoffManager::restartServiceIfNeeded() {
  if (!serviceStarted_) return;
  // Later, on the main queue: a change noticed in the middle of a start or stop never re-enters it.
  QVMainQueue::main().post([weak = weak_from_this()] {
    if (auto manager = weak.lock()) {
      manager->stopHandoffService();
      manager->startHandoffService();
    }
  });
}

void QVHandoffManager::iCloudAccountStateDidChangeNotification() {
  if (!iCloudWasNotConfiguredOnServiceStart_) return;
  const auto presenter = QVHandoffiCloudDocumentsPresenter::defaultPresenter();
  if (!presenter ||
      presenter->currentAccountState() != QVHandoffiCloudDocumentsPresenter::kAccountStateAvailable)
    return;
  performOnMainThreadSynchronouslyIfPossible([weak = weak_from_this()] {
    if (auto manager = weak.lock()) manager->startHandoffService();
  });
}

// MARK: Class operations

int64_t QVHandoffManager::deviceType() {
  return kDesktopDeviceType;
}

std::string QVHandoffManager::productName() {
  ProductNameSlot& slot = productNameSlot();
  std::lock_guard lock(slot.mutex);
  if (!slot.name) slot.name = programName();
  return *slot.name;
}

void QVHandoffManager::setProductName(std::string productName) {
  ProductNameSlot& slot = productNameSlot();
  std::lock_guard lock(slot.mutex);
  slot.name = std::move(productName);
}

std::optional<std::string> QVHandoffManager::serviceTypeFromStorage(const QVHandoffMetaStorage& storage) {
  const std::string serviceType = storage.serviceType();
  if (serviceType.empty()) return std::nullopt;
  return "_qvhandoff" + serviceType + "._tcp";
}

QVError QVHandoffManager::errorFromNetServiceErrorDictionary(const QVUserInfo& errorDictionary) {
  QVError error;
  const auto domain = errorDictionary.find(QVNetServicesErrorDomain);
  if (domain != errorDictionary.end()) {
    if (const auto* text = std::get_if<std::string>(&domain->second)) error.domain = *text;
  }
  const auto code = errorDictionary.find(QVNetServicesErrorCode);
  if (code != errorDictionary.end()) {
    if (const auto* number = std::get_if<int64_t>(&code->second)) error.code = *number;
    if (const auto* number = std::get_if<uint64_t>(&code->second)) error.code = static_cast<int64_t>(*number);
  }
  return error;
}

// MARK: Blocks

namespace {

// The blocks are replaced by the host while connection threads call them: each access takes the lock.
template <class Block> Block lockedCopy(std::mutex& mutex, const Block& block) {
  std::lock_guard lock(mutex);
  return block;
}

template <class Block> void lockedAssign(std::mutex& mutex, Block& slot, Block block) {
  std::lock_guard lock(mutex);
  slot = std::move(block);
}

} // namespace

QVHandoffCopyFileBlock QVHandoffManager::copyFileBlock() const {
  return lockedCopy(blocksMutex_, copyFileBlock_);
}

void QVHandoffManager::setCopyFileBlock(QVHandoffCopyFileBlock block) {
  lockedAssign(blocksMutex_, copyFileBlock_, std::move(block));
}

QVHandoffMoveFileBlock QVHandoffManager::moveFileBlock() const {
  return lockedCopy(blocksMutex_, moveFileBlock_);
}

void QVHandoffManager::setMoveFileBlock(QVHandoffMoveFileBlock block) {
  lockedAssign(blocksMutex_, moveFileBlock_, std::move(block));
}

QVHandoffFileAttributesBlock QVHandoffManager::fileAttributesBlock() const {
  return lockedCopy(blocksMutex_, fileAttributesBlock_);
}

void QVHandoffManager::setFileAttributesBlock(QVHandoffFileAttributesBlock block) {
  lockedAssign(blocksMutex_, fileAttributesBlock_, std::move(block));
}
