#include "Foundation/QVMainQueue.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffManager.h"

#include <utility>

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
  // The TXT record is refreshed here once the local server is published.
}

void QVHandoffManager::setCurrentLocalDocumentIndex(uint64_t index) {
  QV_ASSERT_MAIN_THREAD();
  if (currentLocalDocumentIndex_.exchange(index) == index) return;
  // The TXT record is refreshed here once the local server is published.
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
