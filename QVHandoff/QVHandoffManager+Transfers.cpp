#include "QVHandoff/QVHandoffManager.h"

#include "Foundation/QVDateFormatting.h"
#include "Foundation/QVFileHandle.h"
#include "Foundation/QVFileOperations.h"
#include "Foundation/QVLog.h"
#include "Foundation/QVMIMEType.h"
#include "Foundation/QVMainQueue.h"
#include "Foundation/QVNotificationCenter.h"
#include "Foundation/QVPaths.h"
#include "Foundation/QVUUID.h"
#include "Network/HTTPClient/QVHTTPSessionManager.h"
#include "Network/HTTPClient/QVHTTPURLResponse.h"
#include "Network/HTTPClient/QVURLRequest.h"
#include "QVHandoff/QVHandoffAES256Cryptor.h"
#include "QVHandoff/QVHandoffAES256InputStream.h"
#include "QVHandoff/QVHandoffMessageCodec.h"
#include "QVHandoff/QVHandoffServerInfo.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <limits>
#include <span>
#include <string_view>

QV_LOG_SOURCE("QVHandoff/QVHandoffManager")

namespace {

using DocumentInfoSet = QVHandoffManager::DocumentInfoSet;

// The client hands a download on in pieces of a few KiB. Decrypted, they are gathered and written in
// whole pages, a batch at a time: a page-cache write per piece costs more than decrypting it.
constexpr size_t kDownloadBatchSize = 128 * 1024;
constexpr size_t kPageSize = 4096;

struct DecryptedBatch {
  QVData bytes;
  size_t length = 0;
};

// Decrypts one piece onto the end of the batch (growing it only for a piece larger than the client's own).
std::optional<size_t> decryptIntoBatch(QVHandoffAES256Cryptor& decryptor, std::span<const uint8_t> piece,
                                       DecryptedBatch& batch) {
  // A piece of n bytes gives at most n + 16 (the block held back from the last one); the cipher wants a
  // block of room beyond that, so nothing ever spills into `overflow`.
  const size_t room = piece.size() + 2 * QVHandoffAES256Cryptor::kBlockSize;
  if (batch.bytes.size() < batch.length + room)
    batch.bytes.resize(std::max(batch.length, kDownloadBatchSize) + room);
  QVData overflow;
  const auto length = decryptor.updateWithData(
      piece.data(), piece.size(), std::span(batch.bytes).subspan(batch.length), overflow);
  if (length) batch.length += *length;
  return length;
}

// Writes the batch's whole pages once it is full, or all of it at the end.
void handOnBatch(DecryptedBatch& batch, QVHandoffDocumentInfo& documentInfo, bool all) {
  if (!all && batch.length < kDownloadBatchSize) return;
  const size_t length = all ? batch.length : batch.length / kPageSize * kPageSize;
  documentInfo.handleFileTransferData(batch.bytes.data(), length);
  std::memmove(batch.bytes.data(), batch.bytes.data() + length, batch.length - length);
  batch.length -= length;
}

bool isCancellation(const std::optional<QVError>& error) {
  return error && error->domain == QVURLErrorDomain && error->code == QVURLError::Cancelled;
}

// Ends whatever transfer the record still had, hands it the caller's callbacks and enters it in `set`,
// which it leaves whenever its transfer state is torn down. The manager is kept alive by that handler,
// the record is not.
void beginTransfer(std::shared_ptr<QVHandoffManager> manager, std::mutex& mutex, DocumentInfoSet& set,
                   const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo,
                   QVHandoffManager::ProgressHandler progressHandler,
                   QVHandoffManager::CompletionHandler completionHandler,
                   QVHandoffManager::ErrorHandler errorHandler) {
  documentInfo->invalidateFileTransferRelatedData();
  documentInfo->setFileTransferCompletionHandler(std::move(completionHandler));
  documentInfo->setFileTransferProgressHandler(std::move(progressHandler));
  documentInfo->setFileTransferErrorHandler(std::move(errorHandler));
  documentInfo->setFileTransferInvalidationHandler(
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

// The record of the set that stands for the same document (path and device name).
std::shared_ptr<QVHandoffDocumentInfo> transferInFlight(std::mutex& mutex, const DocumentInfoSet& set,
                                                        const QVHandoffDocumentInfo& documentInfo) {
  std::lock_guard lock(mutex);
  return QVHandoffManager::documentInfo(documentInfo, set);
}

// Leading white space skipped, digits up to the first other character; a number too large saturates.
std::optional<uint64_t> scanUnsignedLongLong(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())))
    text.remove_prefix(1);
  if (text.empty() || !std::isdigit(static_cast<unsigned char>(text.front()))) return std::nullopt;
  uint64_t value = 0;
  for (const char c : text) {
    if (!std::isdigit(static_cast<unsigned char>(c))) break;
    const uint64_t digit = static_cast<uint64_t>(c - '0');
    if (value > (std::numeric_limits<uint64_t>::max() - digit) / 10)
      return std::numeric_limits<uint64_t>::max();
    value = value * 10 + digit;
  }
  return value;
}

// What a URL path or fragment may hold, and "#": slash, "?", "&", "=", ":" and "#" stay as they are, so a
// value holding "&" or "#" breaks the query; peers have always read it this way.
std::string percentEncodedQueryValue(std::string_view text) {
  static constexpr std::string_view kAllowed = "!$&'()*+,-./:;=?@_~#";
  std::string encoded;
  encoded.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80 && (std::isalnum(byte) || kAllowed.find(c) != std::string_view::npos)) {
      encoded += c;
    } else {
      encoded += fmt::format("%{:02X}", byte);
    }
  }
  return encoded;
}

// "{12.5, 30}": each coordinate in its shortest form.
std::string pointText(QVPoint point) {
  return fmt::format("{{{}, {}}}", point.x, point.y);
}

std::string temporaryFilePath() {
  return (std::filesystem::path(QVTemporaryDirectory()) / QVUUIDString()).string();
}

std::string dateText(const std::optional<QVDate>& date) {
  return date ? QVHandoffMessageCodec::dateFormatter().stringFromDate(*date) : std::string();
}

// A POST of an encrypted JSON message to one of the peer's endpoints; none when it cannot be encrypted.
std::optional<QVURLRequest> JSONRequest(const QVHandoffServerInfo& serverInfo, const char* path,
                                        const nlohmann::json& object) {
  auto body = serverInfo.AES256EncryptedDataWithJSONObject(object);
  if (!body) return std::nullopt;
  QVURLRequest request(serverInfo.HTTPAddress() + path, "POST");
  request.setHTTPBody(std::move(*body));
  QVHandoffManager::setContentType(QVHandoffJSONContentType, request);
  return request;
}

bool isResolved(const std::shared_ptr<QVHandoffServerInfo>& serverInfo) {
  return serverInfo && !serverInfo->HTTPAddress().empty();
}

uint64_t unsignedValue(const nlohmann::json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end()) return 0;
  if (found->is_number_unsigned()) return found->get<uint64_t>();
  if (found->is_number_integer()) return static_cast<uint64_t>(found->get<int64_t>());
  if (found->is_number_float()) return static_cast<uint64_t>(found->get<double>());
  return 0;
}

std::string stringValue(const nlohmann::json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
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
                std::move(progressHandler), std::move(completionHandler), std::move(errorHandler));
  performHandoffRemoteDocumentHTTPRequestForDocumentInfo(documentInfo);
}

void QVHandoffManager::performHandoffRemoteDocumentHTTPRequestForDocumentInfo(
    const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo) {
  const auto serverInfo = identifyServerInfoForDocumentInfo(*documentInfo);
  if (!isResolved(serverInfo)) {
    QV_LOG_INFO("Server HTTP address is unresolved");
    documentInfo->handleFileTransferError(internalError());
    return;
  }
  auto request = JSONRequest(*serverInfo, QVHandoffHandoffDocumentRequestPath,
                             {{QVHandoffHandoffDocumentFilePathKey, documentInfo->filePath()}});
  if (!request) {
    QV_LOG_ERROR("Couldn't encrypt handoff remote document request data");
    documentInfo->handleFileTransferError(internalError());
    return;
  }
  // Shared by the data callback and the completion, which runs after the last chunk and writes what the
  // batch still holds.
  const std::shared_ptr<QVHandoffAES256Cryptor> decryptor =
      QVHandoffAES256Cryptor::decryptorWithKeyData(serverInfo->AES256Key());
  const auto batch = std::make_shared<DecryptedBatch>();

  const std::string targetPath =
      QVGenerateMacStyleUniquePath(handoffFilePathForDocumentWithInfo(*documentInfo), 0);
  // Not checked: chunks then go nowhere and the tagging reports the missing file.
  documentInfo->setFileHandle(QVFileHandle::forCreatingAtPath(targetPath));
  documentInfo->setFinalFilePath(targetPath);

  auto& session = HTTPSessionManager();
  // Streamed: the document only ever passes through the data callback, never whole in memory.
  const auto task = session.dataTaskWithRequest(
      *request,
      [this, manager = weak_from_this().lock(), serverInfo, documentInfo, decryptor, batch,
       targetPath](std::shared_ptr<const QVHTTPURLResponse> response, std::optional<QVData>,
                   std::optional<QVError> error) {
        if (isCancellation(error)) return;
        if (error) {
          QV_LOG_ERROR("Handoff remote document request error {}", error->description());
          handleResponseError(*error, serverInfo);
          documentInfo->handleFileTransferError(*error);
          return;
        }
        const auto lastData = decryptor ? decryptor->finish() : std::nullopt;
        if (!lastData) {
          QV_LOG_ERROR("Handoff remote document request decryption finish error");
          documentInfo->handleFileTransferError(internalError());
          return;
        }
        handOnBatch(*batch, *documentInfo, true);
        documentInfo->handleFileTransferData(*lastData);

        const auto lastModified =
            response ? response->valueForHTTPHeaderField(QVHandoffLastModifiedHeader) : std::nullopt;
        const auto modificationDate = lastModified ? QVParseHTTPDate(*lastModified) : std::nullopt;
        if (!modificationDate) {
          QV_LOG_ERROR("Handoff remote document request failed to get new file modification date.");
          documentInfo->handleFileTransferError(internalError());
          return;
        }
        documentInfo->setFileModificationDate(modificationDate);

        const auto decodedLength =
            response ? response->valueForHTTPHeaderField(QVHandoffDecodedContentLengthHeader) : std::nullopt;
        const auto fileSize = decodedLength ? scanUnsignedLongLong(*decodedLength) : std::nullopt;
        if (!fileSize) {
          QV_LOG_ERROR("Handoff remote document request failed to get new file size.");
          documentInfo->handleFileTransferError(internalError());
          return;
        }
        documentInfo->setFileSize(*fileSize);

        if (!documentInfo->fileTransferred()) {
          QV_LOG_ERROR("Handoff remote document request file transfer incomplete");
          documentInfo->handleFileTransferError(internalError());
          return;
        }
        if (const auto updated = updatedRemoteDocumentInfo(documentInfo);
            updated && updated != documentInfo) {
          updated->setFileSize(documentInfo->fileSize());
          updated->setFileModificationDate(documentInfo->fileModificationDate());
        }
        addDocumentInfo(*documentInfo, targetPath);
        documentInfo->handleFileTransferCompletion(targetPath);
      },
      QVURLSessionDataTask::BodyDelivery::Streamed);

  // One slot for the whole session: this download takes it over, and an older one still running stops
  // receiving chunks and ends as incomplete.
  session.setDataTaskDidReceiveDataBlock(
      [taskIdentifier = task->taskIdentifier(), decryptor, batch,
       weakDocumentInfo = std::weak_ptr(documentInfo)](QVHTTPSessionManager&,
                                                       const std::shared_ptr<QVURLSessionDataTask>& chunkTask,
                                                       std::span<const uint8_t> data) {
        if (chunkTask->taskIdentifier() != taskIdentifier) return;
        // Torn down already (cancelled, failed): nothing more to decrypt or write.
        if (chunkTask->state() == QVURLSessionDataTask::State::Canceling) return;
        const auto documentInfo = weakDocumentInfo.lock();
        if (!documentInfo) return;
        if (!decryptor || !decryptIntoBatch(*decryptor, data, *batch)) {
          QV_LOG_ERROR("Handoff remote document request decryption update error");
          documentInfo->handleFileTransferError(internalError());
          return;
        }
        handOnBatch(*batch, *documentInfo, false);
      });

  documentInfo->setFileTransferHTTPOperation(task);
  task->resume();
}

void QVHandoffManager::cancelHandoffRemoteDocumentWithInfo(
    const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo) {
  QV_ASSERT_MAIN_THREAD();
  if (!documentInfo) return;
  const auto found = transferInFlight(transfersMutex_, handoffDocumentsInfo_, *documentInfo);
  if (!found) return;
  QV_LOG_INFO("Cancel handoff for document {}", found->description());
  found->invalidateFileTransferRelatedData();
  found->invalidateFile();
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
                std::move(progressHandler), std::move(completionHandler), std::move(errorHandler));
  performSaveBackHTTPRequestForDocumentWithInfo(documentInfo);
}

void QVHandoffManager::performSaveBackHTTPRequestForDocumentWithInfo(
    const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo) {
  const auto serverInfo = identifyServerInfoForDocumentInfo(*documentInfo);
  if (!isResolved(serverInfo)) {
    QV_LOG_INFO("Server HTTP address is unresolved");
    documentInfo->handleFileTransferError(internalError());
    return;
  }
  // The size and date of the version that was handed off: the origin compares them with its own.
  const std::string URL = fmt::format(
      "{}{}?{}={}&{}={}&{}={}&{}={}&{}={}", serverInfo->HTTPAddress(), QVHandoffSaveBackRequestPath,
      QVHandoffSaveBackPathQueryKey, percentEncodedQueryValue(documentInfo->filePath()),
      QVHandoffSaveBackSizeQueryKey, documentInfo->fileSize(), QVHandoffSaveBackModificationDateQueryKey,
      percentEncodedQueryValue(dateText(documentInfo->fileModificationDate())),
      QVHandoffSaveBackPageNumberQueryKey, documentInfo->pageNumber(), QVHandoffSaveBackPDFPointQueryKey,
      percentEncodedQueryValue(pointText(documentInfo->pdfPoint())));
  documentInfo->setTempFilePath(temporaryFilePath());

  const std::string saveBackFilePath = documentInfo->saveBackFilePath();
  QVNotificationCenter::defaultCenter().post(QVHandoffManagerWillSaveBackLocalDocumentNotification, this,
                                             {{QVHandoffManagerFilePathKey, saveBackFilePath}});
  // The upload reads a private copy, so the host may go on saving the document meanwhile.
  QVError copyError;
  const auto copyFile = copyFileBlock();
  if (!copyFile || !copyFile(saveBackFilePath, documentInfo->tempFilePath(), &copyError)) {
    QV_LOG_ERROR("Couldn't copy file for save back operation. Error: {}", copyError.description());
    documentInfo->handleFileTransferError(internalError());
    return;
  }

  const auto stream =
      QVHandoffAES256InputStream::streamForFileAtPath(documentInfo->tempFilePath(), serverInfo->AES256Key());
  stream->setProgressHandler([weakDocumentInfo = std::weak_ptr(documentInfo)](float progress) {
    if (const auto documentInfo = weakDocumentInfo.lock()) documentInfo->handleFileTransferProgress(progress);
  });
  stream->open();

  QVURLRequest request(URL, "POST");
  request.setHTTPBodyStream([stream](uint8_t* buffer, size_t capacity) {
    return static_cast<size_t>(stream->read(buffer, capacity));
  });
  setContentType(QVMIMETypeForPath(saveBackFilePath), request);

  const auto task = HTTPSessionManager().dataTaskWithRequest(
      request, [this, manager = weak_from_this().lock(), serverInfo, documentInfo,
                stream](std::shared_ptr<const QVHTTPURLResponse>, std::optional<QVData> body,
                        std::optional<QVError> error) {
        // No progress after the end, and the copy's handle goes now rather than with the task.
        stream->close();
        if (isCancellation(error)) return;
        if (error) {
          QV_LOG_ERROR("Save back file request error {}", error->description());
          handleResponseError(*error, serverInfo);
          documentInfo->handleFileTransferError(*error);
          return;
        }
        const auto object = serverInfo->JSONObjectWithAES256EncryptedData(body.value_or(QVData{}));
        if (!object || !object->is_object()) {
          QV_LOG_ERROR("Couldn't decrypt save back file response data");
          documentInfo->handleFileTransferError(internalError());
          return;
        }
        documentInfo->setFilePath(stringValue(*object, "filePath"));
        documentInfo->setFileSize(unsignedValue(*object, "fileSize"));
        documentInfo->setFileModificationDate(QVHandoffMessageCodec::dateFormatter().dateFromString(
            stringValue(*object, "fileModificationDate")));

        // The next save back of this copy must carry the origin's new size and date.
        auto updated = updatedRemoteDocumentInfo(documentInfo);
        if (!updated) updated = documentInfo;
        updated->setFileSize(documentInfo->fileSize());
        updated->setFileModificationDate(documentInfo->fileModificationDate());
        const std::string saveBackFilePath = documentInfo->saveBackFilePath();
        addDocumentInfo(*updated, saveBackFilePath);
        documentInfo->handleFileTransferCompletion(saveBackFilePath);
      });
  documentInfo->setFileTransferHTTPOperation(task);
  task->resume();
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
