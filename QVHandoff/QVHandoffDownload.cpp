// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffDownload.h"

#include "Foundation/QVDateFormatting.h"
#include "Foundation/QVFileHandle.h"
#include "Foundation/QVLog.h"
#include "Foundation/QVPaths.h"
#include "Foundation/QVPrivateTemporaryFile.h"
#include "Network/HTTPClient/QVHTTPSessionManager.h"
#include "Network/HTTPClient/QVHTTPURLResponse.h"
#include "QVHandoff/QVHandoffAES256Cryptor.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffManager.h"
#include "QVHandoff/QVHandoffPaths.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <limits>
#include <string_view>

QV_LOG_SOURCE_OF("QVHandoff/QVHandoffManager", "QVHandoffManager")

namespace {

// The client hands a download on in pieces of a few KiB. Decrypted, they are gathered and written in
// whole pages, a batch at a time: a page-cache write per piece costs more than decrypting it.
constexpr size_t kDownloadBatchSize = 128 * 1024;
constexpr size_t kPageSize = 4096;
constexpr int kMoveAttempts = 8;

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

} // namespace

QVHandoffDownload::QVHandoffDownload(const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo)
    : documentInfo_(documentInfo) {}

QVHandoffDownload::~QVHandoffDownload() = default;

void QVHandoffDownload::start(QVHTTPSessionManager& session, const QVURLRequest& request, const QVData& key,
                              const std::string& targetPath, QVURLSessionDataTask::Completion completion) {
  {
    const std::lock_guard lock(dataLock_);
    decryptor_ = QVHandoffAES256Cryptor::decryptorWithKeyData(key);
  }
  // Not checked: chunks then go nowhere and the download ends incomplete.
  QVError error;
  if (const auto partial = QVCreatePrivateFile(std::filesystem::path(targetPath).parent_path().string(),
                                               QVHandoffPaths::kPartialDownloadPrefix, &error)) {
    setTempFilePath(partial->path);
    setFileHandle(QVFileHandle::forWritingAtPath(partial->path));
  }
  // Streamed: the document only ever passes through the data callback, never whole in memory.
  const auto task = session.dataTaskWithRequest(request, std::move(completion),
                                                QVURLSessionDataTask::BodyDelivery::Streamed);
  session.setDataTaskDidReceiveDataBlock(
      [taskIdentifier = task->taskIdentifier(),
       weakDownload = std::weak_ptr(std::static_pointer_cast<QVHandoffDownload>(shared_from_this()))](
          QVHTTPSessionManager&, const std::shared_ptr<QVURLSessionDataTask>& chunkTask,
          std::span<const uint8_t> data) {
        if (chunkTask->taskIdentifier() != taskIdentifier) return;
        // Torn down already (cancelled, failed): nothing more to decrypt or write.
        if (chunkTask->state() == QVURLSessionDataTask::State::Canceling) return;
        const auto response = chunkTask->response();
        const auto announced =
            response ? response->valueForHTTPHeaderField(QVHandoffDecodedContentLengthHeader) : std::nullopt;
        if (const auto download = weakDownload.lock())
          download->receive(data, announced ? scanUnsignedLongLong(*announced) : std::nullopt);
      });
  setFileTransferHTTPOperation(task);
  task->resume();
}

void QVHandoffDownload::receive(std::span<const uint8_t> piece, std::optional<uint64_t> announcedLength) {
  const auto documentInfo = documentInfo_.lock();
  if (!documentInfo) return;
  if (!announcedLength) {
    QV_LOG_ERROR("Handoff remote document request failed to get new file size.");
    handleFileTransferError(QVHandoffManager::internalError());
    return;
  }
  bool decrypted = false;
  bool overLength = false;
  {
    const std::lock_guard lock(dataLock_);
    if (decryptor_) {
      // A piece of n bytes gives at most n + 16 (the block held back from the last one); the cipher wants a
      // block of room beyond that, so nothing ever spills into `overflow`.
      const size_t room = piece.size() + 2 * QVHandoffAES256Cryptor::kBlockSize;
      if (batch_.size() < batchLength_ + room)
        batch_.resize(std::max(batchLength_, kDownloadBatchSize) + room);
      QVData overflow;
      const auto length = decryptor_->updateWithData(piece.data(), piece.size(),
                                                     std::span(batch_).subspan(batchLength_), overflow);
      if (length) {
        batchLength_ += *length;
        decryptedLength_ += *length;
        decrypted = true;
        // A peer that sends more than it announced is not read on: it may never stop.
        overLength = decryptedLength_ > *announcedLength;
        if (!overLength) handOnBatch(documentInfo->fileSize(), false);
      }
    }
  }
  if (!decrypted) {
    QV_LOG_ERROR("Handoff remote document request decryption update error");
    handleFileTransferError(QVHandoffManager::internalError());
  } else if (overLength) {
    QV_LOG_ERROR("Handoff remote document request file transfer exceeds announced size");
    handleFileTransferError(QVHandoffManager::internalError());
  }
}

void QVHandoffDownload::handOnBatch(uint64_t fileSize, bool all) {
  if (!all && batchLength_ < kDownloadBatchSize) return;
  const size_t length = all ? batchLength_ : batchLength_ / kPageSize * kPageSize;
  handleFileTransferData(batch_.data(), length, fileSize);
  std::memmove(batch_.data(), batch_.data() + length, batchLength_ - length);
  batchLength_ -= length;
}

bool QVHandoffDownload::finish(const QVHTTPURLResponse* response, QVHandoffDocumentInfo& documentInfo) {
  {
    const std::lock_guard lock(dataLock_);
    const auto lastData = decryptor_ ? decryptor_->finish() : std::nullopt;
    if (!lastData) {
      QV_LOG_ERROR("Handoff remote document request decryption finish error");
      return false;
    }
    handOnBatch(documentInfo.fileSize(), true);
    handleFileTransferData(lastData->data(), lastData->size(), documentInfo.fileSize());
  }

  const auto lastModified =
      response ? response->valueForHTTPHeaderField(QVHandoffLastModifiedHeader) : std::nullopt;
  const auto modificationDate = lastModified ? QVParseHTTPDate(*lastModified) : std::nullopt;
  if (!modificationDate) {
    QV_LOG_ERROR("Handoff remote document request failed to get new file modification date.");
    return false;
  }
  documentInfo.setFileModificationDate(modificationDate);

  const auto decodedLength =
      response ? response->valueForHTTPHeaderField(QVHandoffDecodedContentLengthHeader) : std::nullopt;
  const auto fileSize = decodedLength ? scanUnsignedLongLong(*decodedLength) : std::nullopt;
  if (!fileSize) {
    QV_LOG_ERROR("Handoff remote document request failed to get new file size.");
    return false;
  }
  documentInfo.setFileSize(*fileSize);

  if (fileDataSizeHandled() != *fileSize) {
    QV_LOG_ERROR("Handoff remote document request file transfer incomplete");
    return false;
  }
  return true;
}

std::optional<std::string> QVHandoffDownload::moveIntoPlace(const std::string& targetPath) {
  const std::string partialPath = tempFilePath();
  // A copy of the same name may appear meanwhile (another download of it): never replaced, a new name tried.
  for (int attempt = 0; attempt < kMoveAttempts; ++attempt) {
    const std::string path = QVGenerateMacStyleUniquePath(targetPath, 0);
    if (::renameat2(AT_FDCWD, partialPath.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) == 0) {
      // Renamed: no teardown may remove it as the partial file any more.
      setTempFilePath({});
      return path;
    }
    if (errno != EEXIST) break;
  }
  QV_LOG_ERROR("Couldn't move handed-off copy into place at path ({}): {}", targetPath, std::strerror(errno));
  return std::nullopt;
}
