// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffManager.h"

#include "Foundation/QVFileOperations.h"
#include "Foundation/QVLog.h"
#include "Foundation/QVMIMEType.h"
#include "Foundation/QVMainQueue.h"
#include "Foundation/QVNotificationCenter.h"
#include "Foundation/QVPaths.h"
#include "Foundation/QVPrivateTemporaryFile.h"
#include "Foundation/QVUUID.h"
#include "Network/HTTPClient/QVHTTPSessionManager.h"
#include "Network/HTTPClient/QVHTTPURLResponse.h"
#include "QVHandoff/QVHandoffCopyIndex.h"
#include "QVHandoff/QVHandoffDownload.h"
#include "QVHandoff/QVHandoffMessageCodec.h"
#include "QVHandoff/QVHandoffRequests.h"
#include "QVHandoff/QVHandoffServerInfo.h"
#include "QVHandoff/QVHandoffUpload.h"

#include <filesystem>
#include <sys/stat.h>

QV_LOG_SOURCE("QVHandoff/QVHandoffManager")

using namespace QVHandoffRequests;

namespace {

using DocumentInfoSet = QVHandoffManager::DocumentInfoSet;

// Ends whatever transfer the record still had, silently, and makes `transfer` its current one with the
// caller's callbacks; the record enters `set` and leaves it whenever that transfer is torn down. The
// manager is kept alive by that handler, the record is not.
void beginTransfer(std::shared_ptr<QVHandoffManager> manager, std::mutex& mutex, DocumentInfoSet& set,
                   const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo,
                   const std::shared_ptr<QVHandoffTransfer>& transfer,
                   QVHandoffManager::ProgressHandler progressHandler,
                   QVHandoffManager::CompletionHandler completionHandler,
                   QVHandoffManager::ErrorHandler errorHandler) {
  documentInfo->invalidateFileTransferRelatedData();
  documentInfo->setFileTransfer(transfer);
  transfer->setFileTransferCompletionHandler(std::move(completionHandler));
  transfer->setFileTransferProgressHandler(std::move(progressHandler));
  transfer->setFileTransferErrorHandler(std::move(errorHandler));
  transfer->setFileTransferInvalidationHandler(
      [manager = std::move(manager), &mutex, &set,
       weakDocumentInfo = std::weak_ptr<QVHandoffDocumentInfo>(documentInfo)] {
        const auto documentInfo = weakDocumentInfo.lock();
        if (!documentInfo) return;
        std::lock_guard lock(mutex);
        set.erase(documentInfo);
      });
  std::lock_guard lock(mutex);
  set.insert(documentInfo);
}

// The record's current transfer as a `Transfer`; a new one when it runs none of that kind (an operation
// called without its start).
template <class Transfer>
std::shared_ptr<Transfer> currentTransfer(const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo,
                                          auto... arguments) {
  if (auto transfer = std::dynamic_pointer_cast<Transfer>(documentInfo->fileTransfer())) return transfer;
  auto transfer = std::make_shared<Transfer>(arguments...);
  documentInfo->setFileTransfer(transfer);
  return transfer;
}

// The record of the set that stands for the same document (path and device name).
std::shared_ptr<QVHandoffDocumentInfo> transferInFlight(std::mutex& mutex, const DocumentInfoSet& set,
                                                        const QVHandoffDocumentInfo& documentInfo) {
  std::lock_guard lock(mutex);
  return QVHandoffManager::documentInfo(documentInfo, set);
}

// A free name in the private temporary folder, which only this user can enter; none without that folder.
std::optional<std::string> privateTemporaryFilePath() {
  const auto folder = QVPrivateTemporaryDirectory();
  if (!folder) return std::nullopt;
  return (std::filesystem::path(*folder) / QVUUIDString()).string();
}

bool isResolved(const std::shared_ptr<QVHandoffServerInfo>& serverInfo) {
  return serverInfo && !serverInfo->HTTPAddress().empty();
}

} // namespace

// MARK: Handoff of a remote document

void QVHandoffManager::handoffRemoteDocumentWithInfo(
    const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo, ProgressHandler progressHandler,
    CompletionHandler completionHandler, ErrorHandler errorHandler) {
  QV_ASSERT_MAIN_THREAD();
  if (!documentInfo) {
    QV_LOG_ERROR("Couldn't initiate handoff, documentInfo == nil");
    return;
  }
  beginTransfer(weak_from_this().lock(), transfersMutex_, handoffDocumentsInfo_, documentInfo,
                std::make_shared<QVHandoffDownload>(documentInfo), std::move(progressHandler),
                std::move(completionHandler), std::move(errorHandler));
  performHandoffRemoteDocumentHTTPRequestForDocumentInfo(documentInfo);
}

void QVHandoffManager::performHandoffRemoteDocumentHTTPRequestForDocumentInfo(
    const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo) {
  QV_ASSERT_MAIN_THREAD();
  const auto download = currentTransfer<QVHandoffDownload>(documentInfo, documentInfo);
  const auto serverInfo = identifyServerInfoForDocumentInfo(*documentInfo);
  if (!isResolved(serverInfo)) {
    QV_LOG_INFO("Server HTTP address is unresolved");
    download->handleFileTransferError(internalError());
    return;
  }
  auto request = JSONRequest(*serverInfo, QVHandoffHandoffDocumentRequestPath,
                             {{QVHandoffHandoffDocumentFilePathKey, documentInfo->filePath()}});
  if (!request) {
    QV_LOG_ERROR("Couldn't encrypt handoff remote document request data");
    download->handleFileTransferError(internalError());
    return;
  }
  // The copy gets a free name beside this one only once it is whole and tagged.
  const std::string targetPath = handoffFilePathForDocumentWithInfo(*documentInfo);
  // Reaches the download itself, not the record: a record restarted meanwhile is not this download's.
  download->start(HTTPSessionManager(), *request, serverInfo->AES256Key(), targetPath,
                  [this, manager = weak_from_this().lock(), serverInfo, documentInfo, download,
                   targetPath](std::shared_ptr<const QVHTTPURLResponse> response, std::optional<QVData>,
                               std::optional<QVError> error) {
                    if (isCancellation(error)) return;
                    if (error) {
                      QV_LOG_ERROR("Handoff remote document request error {}", error->description());
                      handleResponseError(*error, serverInfo);
                      download->handleFileTransferError(*error);
                      return;
                    }
                    if (!download->finish(response.get(), *documentInfo)) {
                      download->handleFileTransferError(internalError());
                      return;
                    }
                    if (const auto updated = updatedRemoteDocumentInfo(documentInfo);
                        updated && updated != documentInfo) {
                      updated->setFileSize(documentInfo->fileSize());
                      updated->setFileModificationDate(documentInfo->fileModificationDate());
                    }
                    // Tagged before it takes its name; the index, kept by path, follows it there.
                    const std::string partialPath = download->tempFilePath();
                    addDocumentInfo(*documentInfo, partialPath);
                    const auto copyPath = download->moveIntoPlace(targetPath);
                    QVHandoffCopyIndex::shared().removeTags(partialPath);
                    if (!copyPath) {
                      download->handleFileTransferError(internalError());
                      return;
                    }
                    addDocumentInfo(*documentInfo, *copyPath);
                    download->handleFileTransferCompletion(*copyPath);
                  });
}

void QVHandoffManager::cancelHandoffRemoteDocumentWithInfo(
    const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo) {
  QV_ASSERT_MAIN_THREAD();
  if (!documentInfo) return;
  const auto found = transferInFlight(transfersMutex_, handoffDocumentsInfo_, *documentInfo);
  if (!found) return;
  QV_LOG_INFO("Cancel handoff for document {}", found->description());
  // One transfer for both steps, even if the record starts another in between.
  const auto transfer = found->fileTransfer();
  transfer->invalidateFileTransferRelatedData();
  transfer->invalidateFile();
}

// MARK: Save back of a handed-off document

void QVHandoffManager::saveBackFileAtPath(const std::string& path,
                                          const std::shared_ptr<QVHandoffDocumentInfo>& withDocumentInfo,
                                          ProgressHandler progressHandler,
                                          CompletionHandler completionHandler, ErrorHandler errorHandler) {
  QV_ASSERT_MAIN_THREAD();
  const auto& documentInfo = withDocumentInfo;
  if (!documentInfo) {
    QV_LOG_ERROR("Couldn't initiate save back, documentInfo == nil");
    return;
  }
  if (!QVFileExists(path)) {
    QV_LOG_ERROR("Couldn't initiate save back, file not exists at path ({})", path);
    return;
  }
  documentInfo->setSaveBackFilePath(path);
  beginTransfer(weak_from_this().lock(), transfersMutex_, saveBackDocumentsInfo_, documentInfo,
                std::make_shared<QVHandoffUpload>(), std::move(progressHandler), std::move(completionHandler),
                std::move(errorHandler));
  performSaveBackHTTPRequestForDocumentWithInfo(documentInfo);
}

void QVHandoffManager::performSaveBackHTTPRequestForDocumentWithInfo(
    const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo) {
  QV_ASSERT_MAIN_THREAD();
  const auto upload = currentTransfer<QVHandoffUpload>(documentInfo);
  const auto serverInfo = identifyServerInfoForDocumentInfo(*documentInfo);
  if (!isResolved(serverInfo)) {
    QV_LOG_INFO("Server HTTP address is unresolved");
    upload->handleFileTransferError(internalError());
    return;
  }
  const std::string URL = QVHandoffUpload::saveBackURL(*serverInfo, *documentInfo);
  upload->setTempFilePath(privateTemporaryFilePath().value_or(std::string()));

  const std::string saveBackFilePath = documentInfo->saveBackFilePath();
  QVNotificationCenter::defaultCenter().post(QVHandoffManagerWillSaveBackLocalDocumentNotification, this,
                                             {{QVHandoffManagerFilePathKey, saveBackFilePath}});
  // The upload reads a private copy, so the host may go on saving the document meanwhile.
  QVError copyError;
  const auto copyFile = copyFileBlock();
  const std::string copyPath = upload->tempFilePath();
  // The copy takes the document's mode; its folder keeps others out until it is narrowed to ours.
  if (copyPath.empty() || !copyFile || !copyFile(saveBackFilePath, copyPath, &copyError) ||
      ::chmod(copyPath.c_str(), S_IRUSR | S_IWUSR) != 0) {
    QV_LOG_ERROR("Couldn't copy file for save back operation. Error: {}", copyError.description());
    upload->handleFileTransferError(internalError());
    return;
  }
  upload->start(HTTPSessionManager(), URL, serverInfo->AES256Key(), QVMIMETypeForPath(saveBackFilePath),
                [this, manager = weak_from_this().lock(), serverInfo, documentInfo,
                 upload](std::shared_ptr<const QVHTTPURLResponse>, std::optional<QVData> body,
                         std::optional<QVError> error) {
                  upload->closeStream();
                  if (isCancellation(error)) return;
                  if (error) {
                    QV_LOG_ERROR("Save back file request error {}", error->description());
                    handleResponseError(*error, serverInfo);
                    upload->handleFileTransferError(*error);
                    return;
                  }
                  if (!QVHandoffUpload::takeAnswer(body.value_or(QVData{}), *serverInfo, *documentInfo)) {
                    upload->handleFileTransferError(internalError());
                    return;
                  }
                  // The next save back of this copy must carry the origin's new size and date.
                  auto updated = updatedRemoteDocumentInfo(documentInfo);
                  if (!updated) updated = documentInfo;
                  updated->setFileSize(documentInfo->fileSize());
                  updated->setFileModificationDate(documentInfo->fileModificationDate());
                  const std::string saveBackFilePath = documentInfo->saveBackFilePath();
                  addDocumentInfo(*updated, saveBackFilePath);
                  upload->handleFileTransferCompletion(saveBackFilePath);
                });
}

void QVHandoffManager::cancelSaveBackDocumentWithInfo(
    const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo) {
  QV_ASSERT_MAIN_THREAD();
  if (!documentInfo) return;
  const auto found = transferInFlight(transfersMutex_, saveBackDocumentsInfo_, *documentInfo);
  if (!found) return;
  QV_LOG_INFO("Cancel save back for document {}", documentInfo->description());
  found->invalidateFileTransferRelatedData();
}

void QVHandoffManager::postDidFailSaveBackRemoteDocumentNotificationForLocalFilePath(
    const std::string& path) {
  if (path.empty()) {
    QV_LOG_ERROR("Couldn't post did fail save back remote document notification");
    return;
  }
  performOnMainThreadSynchronouslyIfPossible([&] {
    QVNotificationCenter::defaultCenter().post(QVHandoffManagerDidFailSaveBackRemoteDocumentNotification,
                                               this, {{QVHandoffManagerOriginalFilePathKey, path}});
  });
}

// MARK: Mark as modified and force remote save back

void QVHandoffManager::markAsModifiedFileAtPath(
    const std::string& path, const std::shared_ptr<QVHandoffDocumentInfo>& withDocumentInfo) {
  QV_ASSERT_MAIN_THREAD();
  const auto& documentInfo = withDocumentInfo;
  if (!documentInfo) {
    QV_LOG_ERROR("Couldn't initiate mark as modified file, documentInfo == nil");
    return;
  }
  if (!QVFileExists(path)) {
    QV_LOG_ERROR("Couldn't initiate mark as modified file, file not exists at path ({})", path);
    return;
  }
  const auto server = localServer();
  if (!server || !server->isRunning()) {
    QV_LOG_WARN("Couldn't mark as modified file, since local server is not running");
    return;
  }
  documentInfo->setRemoteDeviceName(server->publishedName());
  documentInfo->setRemoteFilePath(path);
  performMarkAsModifiedFileHTTPRequestForDocumentInfo(documentInfo);
}

void QVHandoffManager::performMarkAsModifiedFileHTTPRequestForDocumentInfo(
    const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo) {
  QV_ASSERT_MAIN_THREAD();
  const auto serverInfo = identifyServerInfoForDocumentInfo(*documentInfo);
  if (!isResolved(serverInfo)) {
    QV_LOG_INFO("Server HTTP address is unresolved");
    return;
  }
  if (!documentInfo->hasRemoteInfo()) {
    QV_LOG_ERROR("Document has no remote info");
    return;
  }
  const auto request =
      JSONRequest(*serverInfo, QVHandoffMarkAsModifiedFileRequestPath,
                  {{QVHandoffMarkAsModifiedFileFilePathKey, documentInfo->filePath()},
                   {QVHandoffMarkAsModifiedFileRemoteFilePathKey, documentInfo->remoteFilePath()},
                   {QVHandoffMarkAsModifiedFileRemoteFileModificationDateKey,
                    dateText(documentInfo->fileModificationDate())},
                   {QVHandoffMarkAsModifiedFileRemoteDeviceNameKey, documentInfo->remoteDeviceName()},
                   {QVHandoffMarkAsModifiedFileRemoteDeviceTypeKey, deviceType()}});
  if (!request) {
    QV_LOG_ERROR("Couldn't encrypt mark as modified file request data");
    return;
  }
  // Fire and forget: the task is not kept and cannot be cancelled.
  HTTPSessionManager()
      .dataTaskWithRequest(*request,
                           [this, manager = weak_from_this().lock(),
                            serverInfo](std::shared_ptr<const QVHTTPURLResponse>, std::optional<QVData> body,
                                        std::optional<QVError> error) {
                             if (isCancellation(error)) return;
                             if (error) {
                               QV_LOG_ERROR("Mark as modified file request error {}", error->description());
                               handleResponseError(*error, serverInfo);
                               return;
                             }
                             if (!QVHandoffMessageCodec::isSuccessResponseData(body.value_or(QVData{}),
                                                                               serverInfo->AES256Key())) {
                               QV_LOG_ERROR("Mark as modified file request failed");
                             }
                           })
      ->resume();
}

bool QVHandoffManager::forceRemoteSaveBackForLocalFileAtPath(const std::string& path) {
  QV_ASSERT_MAIN_THREAD();
  if (!QVFileExists(path)) {
    QV_LOG_ERROR("Couldn't initiate force remote save back file, file not exists at path ({})", path);
    return false;
  }
  const auto documentInfo = localDocumentInfoForFilePath(path);
  if (!documentInfo) {
    QV_LOG_ERROR("Couldn't initiate force remote save back file, local documentInfo == nil");
    return false;
  }
  if (!documentInfo->hasRemoteInfo()) {
    QV_LOG_ERROR("Couldn't initiate force remote save back file, remote info is undefined");
    return false;
  }
  return performForceRemoteSaveBackFileHTTPRequestForDocumentInfo(documentInfo);
}

bool QVHandoffManager::performForceRemoteSaveBackFileHTTPRequestForDocumentInfo(
    const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo) {
  QV_ASSERT_MAIN_THREAD();
  // The peer is the device holding the modified copy, not the one the document came from.
  const auto serverInfo = serverInfoForDeviceName(documentInfo->remoteDeviceName());
  if (!isResolved(serverInfo)) {
    QV_LOG_INFO("Server HTTP address is unresolved");
    return false;
  }
  const auto request =
      JSONRequest(*serverInfo, QVHandoffForceRemoteSaveBackFileRequestPath,
                  {{QVHandoffForceRemoteSaveBackFileFilePathKey, documentInfo->remoteFilePath()}});
  if (!request) {
    QV_LOG_ERROR("Couldn't encrypt force remote save back file request data");
    return false;
  }
  HTTPSessionManager()
      .dataTaskWithRequest(
          *request,
          [this, manager = weak_from_this().lock(), serverInfo,
           documentInfo](std::shared_ptr<const QVHTTPURLResponse>, std::optional<QVData> body,
                         std::optional<QVError> error) {
            if (isCancellation(error)) return;
            if (error) {
              QV_LOG_ERROR("Force remote save back file request error {}", error->description());
              handleResponseError(*error, serverInfo);
              postDidFailSaveBackRemoteDocumentNotificationForLocalFilePath(documentInfo->filePath());
              return;
            }
            if (!QVHandoffMessageCodec::isSuccessResponseData(body.value_or(QVData{}),
                                                              serverInfo->AES256Key())) {
              QV_LOG_ERROR("Force remote save back file request failed");
              postDidFailSaveBackRemoteDocumentNotificationForLocalFilePath(documentInfo->filePath());
            }
          })
      ->resume();
  return true;
}
