// SPDX-License-Identifier: MIT
#include "Foundation/QVLog.h"
#include "Foundation/QVMainQueue.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffManager.h"
#include "QVHandoff/QVHandoffMessageCodec.h"
#include "QVHandoff/QVHandoffServerContext.h"
#include "QVHandoff/QVHandoffServerInfo.h"

#include <chrono>
#include <utility>

QV_LOG_SOURCE("QVHandoff/QVHandoffManager")

namespace {

QVData bytes(const std::string& text) {
  return QVData(text.begin(), text.end());
}

// Connections reach the manager through this object. A call off the main thread holds the manager only
// for its own length and lets go of it on the main thread: a host dropping the manager meanwhile must not
// see it destroyed on a connection thread.
class ManagerServerContext final : public QVHandoffServerContext {
public:
  explicit ManagerServerContext(std::weak_ptr<QVHandoffManager> manager) : manager_(std::move(manager)) {}

  std::shared_ptr<const DocumentInfoList> localDocumentsInfo() const override {
    const auto manager = this->manager();
    return manager ? manager->localDocumentsInfo() : std::make_shared<const DocumentInfoList>();
  }
  uint64_t currentLocalDocumentIndex() const override {
    const auto manager = this->manager();
    return manager ? manager->currentLocalDocumentIndex() : QVNotFound;
  }
  std::shared_ptr<QVHandoffDocumentInfo>
  localDocumentInfoForFilePath(const std::string& path) const override {
    const auto manager = this->manager();
    return manager ? manager->localDocumentInfoForFilePath(path) : nullptr;
  }
  bool copyHandoffDocumentAtPath(const std::string& path, const std::string& toPath,
                                 QVError* error) override {
    const auto manager = this->manager();
    return manager ? manager->copyHandoffDocumentAtPath(path, toPath, error) : failed(error);
  }
  QVHandoffMoveFileBlock moveFileBlock() const override {
    const auto manager = this->manager();
    return manager ? manager->moveFileBlock() : QVHandoffMoveFileBlock();
  }
  std::optional<QVFileAttributes> attributesOfHandoffDocumentAtPath(const std::string& path,
                                                                    QVError* error) const override {
    const auto manager = this->manager();
    if (!manager) {
      failed(error);
      return std::nullopt;
    }
    return manager->attributesOfHandoffDocumentAtPath(path, error);
  }

  void postNotification(const char* name, QVUserInfo userInfo) override {
    QV_ASSERT_MAIN_THREAD();
    if (const auto manager = manager_.lock())
      QVNotificationCenter::defaultCenter().post(name, manager.get(), std::move(userInfo));
  }
  void postDidFailSaveBackRemoteDocumentNotificationForLocalFilePath(const std::string& path) override {
    QV_ASSERT_MAIN_THREAD();
    if (const auto manager = manager_.lock())
      manager->postDidFailSaveBackRemoteDocumentNotificationForLocalFilePath(path);
  }
  void setRemoteMarks(QVHandoffDocumentInfo& documentInfo, const std::string& remoteDeviceName,
                      const std::string& remoteFilePath) override {
    QV_ASSERT_MAIN_THREAD();
    documentInfo.setRemoteDeviceName(remoteDeviceName);
    documentInfo.setRemoteFilePath(remoteFilePath);
  }

private:
  static bool failed(QVError* error) {
    if (error) *error = QVHandoffManager::internalError();
    return false;
  }

  std::shared_ptr<QVHandoffManager> manager() const {
    auto manager = manager_.lock();
    if (!manager || QVMainQueue::main().isMainThread()) return manager;
    QVHandoffManager* const raw = manager.get();
    return std::shared_ptr<QVHandoffManager>(raw, [held = std::move(manager)](QVHandoffManager*) mutable {
      QVMainQueue::main().post([held = std::move(held)] {});
    });
  }

  std::weak_ptr<QVHandoffManager> manager_;
};

} // namespace

std::shared_ptr<QVHandoffServerContext> QVHandoffManager::serverContext() {
  if (!serverContext_) serverContext_ = std::make_shared<ManagerServerContext>(weak_from_this());
  return serverContext_;
}

std::shared_ptr<QVHandoffHTTPServer> QVHandoffManager::localServer() {
  if (!localServer_) {
    localServer_ = std::make_shared<QVHandoffHTTPServer>();
    localServer_->setDelegate(weak_from_this().lock());
    localServer_->setContext(serverContext());
  }
  return localServer_;
}

void QVHandoffManager::setServerPort(uint16_t port) {
  serverPort_ = port;
}

void QVHandoffManager::startPublishing() {
  QV_ASSERT_MAIN_THREAD();
  const auto server = localServer();
  // Never restarted in place: a running server keeps its publication.
  if (server->isRunning()) return;
  if (!masterStorage_) return;
  const auto type = serviceTypeFromStorage(*masterStorage_);
  if (!type) return;
  updateLocalServerTXTData();
  server->setType(*type);
  server->setPreferredPort(serverPort_);
  QVError error;
  if (!server->start(&error) && !error.domain.empty()) {
    QV_LOG_ERROR("Error starting HTTP server {}", error.description());
  }
}

void QVHandoffManager::stopPublishing() {
  QV_ASSERT_MAIN_THREAD();
  localServer()->stop();
}

void QVHandoffManager::handoffHTTPServerDidPublish(QVHandoffHTTPServer&) {
  // A confirmation that arrives after a stop starts nothing.
  if (serviceStarted_) startBrowsing();
}

std::shared_ptr<const QVHandoffManager::DocumentInfoList> QVHandoffManager::localDocumentsInfo() const {
  std::lock_guard lock(localDocumentsMutex_);
  return localDocumentsInfo_;
}

void QVHandoffManager::setLocalDocumentsInfo(std::shared_ptr<const DocumentInfoList> documentsInfo) {
  QV_ASSERT_MAIN_THREAD();
  if (!documentsInfo) documentsInfo = std::make_shared<const DocumentInfoList>();
  std::shared_ptr<const DocumentInfoList> oldDocumentsInfo;
  {
    std::lock_guard lock(localDocumentsMutex_);
    if (documentsInfo == localDocumentsInfo_) return;
    oldDocumentsInfo = std::exchange(localDocumentsInfo_, documentsInfo);
  }
  // A peer's marks on a document survive the host rebuilding its list, as long as the path stays.
  for (const auto& oldDocumentInfo : *oldDocumentsInfo) {
    if (!oldDocumentInfo->hasRemoteInfo()) continue;
    if (auto documentInfo = localDocumentInfoForFilePath(oldDocumentInfo->filePath())) {
      documentInfo->setRemoteDeviceName(oldDocumentInfo->remoteDeviceName());
      documentInfo->setRemoteFilePath(oldDocumentInfo->remoteFilePath());
    }
  }
  updateLocalServerTXTData();
}

void QVHandoffManager::setCurrentLocalDocumentIndex(uint64_t index) {
  QV_ASSERT_MAIN_THREAD();
  if (currentLocalDocumentIndex_.exchange(index) == index) return;
  // The index travels in the tabs list only; a new date mark makes peers fetch it again.
  updateLocalServerTXTData();
}

void QVHandoffManager::updateLocalDocumentsInfo() {
  updateLocalServerTXTData();
}

void QVHandoffManager::updateLocalServerTXTData() {
  const bool hasDocuments = !localDocumentsInfo()->empty();
  const auto now = std::chrono::system_clock::now();
  localServer()->setTXTRecordDictionary({
      {QVHandoffServerHasOpenedDocumentsKey, bytes(hasDocuments ? "1" : "0")},
      {QVHandoffServerDeviceTypeKey,
       bytes(QVHandoffMessageCodec::numberFormatter().stringFromNumber(static_cast<uint64_t>(deviceType())))},
      {QVHandoffServerProductNameKey, bytes(productName())},
      {QVHandoffServerDateMarkKey, bytes(QVHandoffMessageCodec::dateFormatter().stringFromDate(now))},
  });
}

std::shared_ptr<QVHandoffDocumentInfo>
QVHandoffManager::localDocumentInfoForFilePath(const std::string& path) const {
  if (path.empty()) return nullptr;
  const auto documentsInfo = localDocumentsInfo();
  for (const auto& documentInfo : *documentsInfo) {
    if (documentInfo->filePath() == path) return documentInfo;
  }
  return nullptr;
}
