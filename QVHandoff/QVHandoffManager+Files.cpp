// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffManager.h"

#include "Foundation/QVNotificationCenter.h"
#include "QVHandoff/QVHandoffFileTags.h"
#include "QVHandoff/QVHandoffPaths.h"

namespace {

// The error slot receives the operation's error, and is cleared when it succeeds.
template <auto Operation>
bool defaultFileOperation(const std::string& sourcePath, const std::string& destinationPath, QVError* error) {
  QVError operationError;
  const bool done = Operation(sourcePath, destinationPath, &operationError);
  if (error) *error = done ? QVError{} : operationError;
  return done;
}

} // namespace

// Only regular files, cut at the size they had when opened: a peer may name a FIFO, a device or /dev/zero.
const QVHandoffCopyFileBlock QVHandoffManagerDefaultCopyFileBlock = defaultFileOperation<&QVCopyRegularFile>;
const QVHandoffMoveFileBlock QVHandoffManagerDefaultMoveFileBlock =
    defaultFileOperation<&QVMoveItemReplacing>;

const QVHandoffFileAttributesBlock QVHandoffManagerDefaultFileAttributesBlock = [](const std::string& path,
                                                                                   QVError* error) {
  QVError readError;
  auto attributes = QVAttributesOfItem(path, &readError);
  if (error) *error = attributes ? QVError{} : readError;
  return attributes;
};

void QVHandoffManager::addDocumentInfo(const QVHandoffDocumentInfo& documentInfo,
                                       const std::string& toFileAtPath) {
  QVHandoffFileTags::addDocumentInfo(documentInfo, toFileAtPath);
}

std::shared_ptr<QVHandoffDocumentInfo> QVHandoffManager::documentInfoForFileAtPath(const std::string& path) {
  return QVHandoffFileTags::documentInfoForFileAtPath(path);
}

void QVHandoffManager::removeDocumentInfoFromFileAtPath(const std::string& path) {
  QVHandoffFileTags::removeDocumentInfoFromFileAtPath(path);
}

bool QVHandoffManager::setString(const std::string& string, const std::string& xattrName,
                                 const std::string& forFileAtPath) {
  return QVHandoffFileTags::setString(string, xattrName, forFileAtPath);
}

std::optional<std::string> QVHandoffManager::stringForXattrName(const std::string& xattrName,
                                                                const std::string& fromFileAtPath) {
  return QVHandoffFileTags::stringForXattrName(xattrName, fromFileAtPath);
}

std::shared_ptr<QVHandoffDocumentInfo>
QVHandoffManager::documentInfo(const QVHandoffDocumentInfo& documentInfo,
                               const std::unordered_set<std::shared_ptr<QVHandoffDocumentInfo>>& fromSet) {
  // An absent path or device name matches nothing, as with the records' own equality.
  if (documentInfo.filePath().empty() || documentInfo.deviceName().empty()) return nullptr;
  for (const auto& candidate : fromSet) {
    if (candidate && candidate->filePath() == documentInfo.filePath() &&
        candidate->deviceName() == documentInfo.deviceName()) {
      return candidate;
    }
  }
  return nullptr;
}

std::optional<std::string> QVHandoffManager::handoffContentTypeForFileAtPath(const std::string& path) {
  return QVHandoffFileTags::handoffContentTypeForFileAtPath(path);
}

void QVHandoffManager::setOverriddenFileModificationDate(QVDate date, const std::string& forFileAtPath) {
  QVHandoffFileTags::setOverriddenFileModificationDate(date, forFileAtPath);
}

void QVHandoffManager::setOverriddenFileModificationDateToCurrentDateForFileAtPath(const std::string& path) {
  QVHandoffFileTags::setOverriddenFileModificationDate(std::chrono::system_clock::now(), path);
}

std::optional<QVDate> QVHandoffManager::overriddenFileModificationDateForFileAtPath(const std::string& path) {
  return QVHandoffFileTags::overriddenFileModificationDateForFileAtPath(path);
}

std::optional<QVDate> QVHandoffManager::latestFileModificationDateForFileAtPath(const std::string& path) {
  return QVHandoffFileTags::latestFileModificationDateForFileAtPath(path);
}

bool QVHandoffManager::date(const std::optional<QVDate>& date, const std::optional<QVDate>& isSimilarToDate) {
  return QVHandoffFileTags::datesAreSimilar(date, isSimilarToDate);
}

std::string QVHandoffManager::handoffDirectoryPath() {
  std::call_once(handoffDirectoryOnce_, [this] { handoffDirectoryPath_ = QVHandoffPaths::defaultFolder(); });
  return handoffDirectoryPath_;
}

std::string
QVHandoffManager::uniqueEmptyHandoffFilePathForDocumentWithInfo(const QVHandoffDocumentInfo& documentInfo) {
  return QVHandoffPaths::uniqueEmptyFilePath(defaultHandoffDirectoryPath(), documentInfo);
}

std::string QVHandoffManager::handoffFilePathForDocumentWithInfo(const QVHandoffDocumentInfo& documentInfo) {
  return QVHandoffPaths::filePath(defaultHandoffDirectoryPath(), documentInfo);
}

bool QVHandoffManager::handoffReadyFilePath(const std::string& path) {
  return QVHandoffPaths::isReadyFilePath(path);
}

std::optional<QVFileAttributes> QVHandoffManager::attributesOfHandoffDocumentAtPath(const std::string& path,
                                                                                    QVError* error) const {
  const auto block = fileAttributesBlock();
  return block ? block(path, error) : std::nullopt;
}

bool QVHandoffManager::copyHandoffDocumentAtPath(const std::string& path, const std::string& toPath,
                                                 QVError* error) {
  // Synchronously and on this connection's thread, so the host can save the document before it is read.
  QVNotificationCenter::defaultCenter().post(QVHandoffManagerWillHandoffLocalDocumentNotification, this,
                                             {{QVHandoffManagerFilePathKey, path}});
  const auto block = copyFileBlock();
  return block && block(path, toPath, error);
}

bool QVHandoffManager::moveSavedBackDocumentAtPath(const std::string& path, const std::string& toOriginalPath,
                                                   QVError* error) {
  const auto block = moveFileBlock();
  return block && block(path, toOriginalPath, error);
}
