// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffTransfer.h"

#include "Foundation/QVFileHandle.h"
#include "Foundation/QVMainQueue.h"
#include "Network/HTTPClient/QVURLSessionDataTask.h"

#include <chrono>
#include <filesystem>
#include <utility>

namespace {

// The smallest progress step worth waking the user interface for, and how often at most.
constexpr float kProgressStep = 0.01f;
constexpr double kProgressInterval = 0.1;

void removeFileIgnoringFailure(const std::string& path) {
  if (path.empty()) return;
  std::error_code ignored;
  std::filesystem::remove(path, ignored);
}

} // namespace

void QVHandoffTransfer::handleFileTransferData(const uint8_t* bytes, size_t length, uint64_t fileSize) {
  float progress = 0;
  {
    const std::lock_guard lock(lock_);
    // Bytes that did not reach the file (a full disk) are not counted, so the transfer ends incomplete
    // and its partial copy is deleted rather than handed over truncated.
    if (fileHandle_ && !fileHandle_->write(bytes, length)) return;
    // Without a known size there is nothing to measure progress against.
    if (fileSize == 0) return;
    fileDataSizeHandled_ += length;
    progress = static_cast<float>(fileDataSizeHandled_) / static_cast<float>(fileSize);
  }
  // Outside the lock: the progress callback waits for the main thread, which may itself be waiting for
  // the lock to cancel this transfer.
  handleFileTransferProgress(progress);
}

void QVHandoffTransfer::handleFileTransferProgress(float progress) {
  const double now = QVTimeIntervalSinceReferenceDate(std::chrono::system_clock::now());
  {
    const std::lock_guard lock(lock_);
    if (!fileTransferProgressHandler_) return;
    if (now - notifiedProgressTime_ < kProgressInterval) return;
    const float step = progress - notifiedProgress_;
    if (step < kProgressStep) return;
  }
  performOnMainThreadSynchronouslyIfPossible([&] {
    const std::lock_guard lock(lock_);
    // Torn down while this waited for the main thread: cancellation stays silent.
    if (!fileTransferProgressHandler_) return;
    const ProgressHandler handler = fileTransferProgressHandler_;
    handler(progress);
    // A callback that cancelled the transfer leaves the bookkeeping reset for the next one.
    if (!fileTransferProgressHandler_) return;
    notifiedProgressTime_ = now;
    notifiedProgress_ = progress;
  });
}

void QVHandoffTransfer::handleFileTransferCompletion(const std::string& filePath) {
  // The caller may pass our own finalFilePath, which is cleared below.
  const std::string path = filePath;
  CompletionHandler completion;
  {
    const std::lock_guard lock(lock_);
    completion = fileTransferCompletionHandler_;
    invalidateFileTransferRelatedData();
    // The finished copy is the caller's now; invalidateFile must not reach it.
    finalFilePath_.clear();
  }
  if (completion) performOnMainThreadSynchronouslyIfPossible([&] { completion(path); });
}

void QVHandoffTransfer::handleFileTransferError(const QVError& error) {
  const QVError reported = error;
  ErrorHandler errorHandler;
  {
    const std::lock_guard lock(lock_);
    errorHandler = fileTransferErrorHandler_;
    invalidateFileTransferRelatedData();
  }
  invalidateFile();
  if (errorHandler) performOnMainThreadSynchronouslyIfPossible([&] { errorHandler(reported); });
}

void QVHandoffTransfer::invalidateFileTransferRelatedData() {
  const std::lock_guard lock(lock_);
  removeFileIgnoringFailure(tempFilePath_);
  tempFilePath_.clear();
  fileDataSizeHandled_ = 0;
  notifiedProgressTime_ = 0;
  notifiedProgress_ = 0;
  // Each member is cleared before it is acted on, so a call back into the transfer from close, cancel or
  // the invalidation callback finds nothing left to tear down.
  if (auto handle = std::move(fileHandle_)) handle->close();
  if (auto operation = std::move(fileTransferHTTPOperation_)) operation->cancel();
  fileTransferCompletionHandler_ = nullptr;
  fileTransferProgressHandler_ = nullptr;
  fileTransferErrorHandler_ = nullptr;
  InvalidationHandler invalidation = std::move(fileTransferInvalidationHandler_);
  fileTransferInvalidationHandler_ = nullptr;
  if (invalidation) invalidation();
}

void QVHandoffTransfer::invalidateFile() {
  std::string path;
  {
    // A failing data thread and a cancel on the main thread may both get here: one of them deletes.
    const std::lock_guard lock(lock_);
    path = std::exchange(finalFilePath_, {});
  }
  removeFileIgnoringFailure(path);
}
