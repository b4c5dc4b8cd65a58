// SPDX-License-Identifier: MIT
#pragma once
// One running download or upload: the file it writes, its temporary file, its request, its progress
// bookkeeping and the caller's callbacks, all under one lock. A record starts each transfer with a new one,
// so a late chunk of an older request reaches only the older transfer, which is torn down already.

#include "Foundation/QVTypes.h"
#include "QVHandoff/QVHandoffExport.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

class QVFileHandle;
class QVURLSessionDataTask;

class QVHANDOFF_EXPORT QVHandoffTransfer : public std::enable_shared_from_this<QVHandoffTransfer> {
public:
  using CompletionHandler = std::function<void(const std::string& filePath)>;
  using ProgressHandler = std::function<void(float progress)>;
  using ErrorHandler = std::function<void(const QVError& error)>;
  using InvalidationHandler = std::function<void()>;

  QVHandoffTransfer() = default;
  QVHandoffTransfer(const QVHandoffTransfer&) = delete;
  QVHandoffTransfer& operator=(const QVHandoffTransfer&) = delete;
  virtual ~QVHandoffTransfer() = default;

  /// Every accessor takes the lock: the data thread and the main thread both reach a transfer.
  float notifiedProgress() const { return locked(notifiedProgress_); }
  double notifiedProgressTime() const { return locked(notifiedProgressTime_); }
  uint64_t fileDataSizeHandled() const { return locked(fileDataSizeHandled_); }
  std::shared_ptr<QVFileHandle> fileHandle() const { return locked(fileHandle_); }
  void setFileHandle(std::shared_ptr<QVFileHandle> value) { assign(fileHandle_, std::move(value)); }
  std::string finalFilePath() const { return locked(finalFilePath_); }
  void setFinalFilePath(std::string value) { assign(finalFilePath_, std::move(value)); }
  std::string tempFilePath() const { return locked(tempFilePath_); }
  void setTempFilePath(std::string value) { assign(tempFilePath_, std::move(value)); }
  std::shared_ptr<QVURLSessionDataTask> fileTransferHTTPOperation() const {
    return locked(fileTransferHTTPOperation_);
  }
  void setFileTransferHTTPOperation(std::shared_ptr<QVURLSessionDataTask> value) {
    assign(fileTransferHTTPOperation_, std::move(value));
  }
  CompletionHandler fileTransferCompletionHandler() const { return locked(fileTransferCompletionHandler_); }
  void setFileTransferCompletionHandler(CompletionHandler value) {
    assign(fileTransferCompletionHandler_, std::move(value));
  }
  ProgressHandler fileTransferProgressHandler() const { return locked(fileTransferProgressHandler_); }
  void setFileTransferProgressHandler(ProgressHandler value) {
    assign(fileTransferProgressHandler_, std::move(value));
  }
  ErrorHandler fileTransferErrorHandler() const { return locked(fileTransferErrorHandler_); }
  void setFileTransferErrorHandler(ErrorHandler value) {
    assign(fileTransferErrorHandler_, std::move(value));
  }
  InvalidationHandler fileTransferInvalidationHandler() const {
    return locked(fileTransferInvalidationHandler_);
  }
  void setFileTransferInvalidationHandler(InvalidationHandler value) {
    assign(fileTransferInvalidationHandler_, std::move(value));
  }

  /// Written and counted against `fileSize` (the record's; 0 writes without counting).
  void handleFileTransferData(const uint8_t* bytes, size_t length, uint64_t fileSize);
  /// Reaches the progress callback on the main thread, at most every 0.1 s and in steps of at least 1%.
  void handleFileTransferProgress(float progress);
  /// Tears the transfer down, keeps the finished copy, and calls the completion callback on the main thread.
  void handleFileTransferCompletion(const std::string& filePath);
  /// Tears the transfer down, deletes the partial copy, and calls the error callback on the main thread.
  void handleFileTransferError(const QVError& error);
  /// Deletes the temporary file, resets the counters, drops handle, request and callbacks; then calls the
  /// invalidation callback once. The final copy stays.
  void invalidateFileTransferRelatedData();
  /// Deletes the final (partial) copy, once, whichever thread gets here first.
  void invalidateFile();

private:
  template <class T> T locked(const T& member) const {
    const std::lock_guard lock(lock_);
    return member;
  }
  template <class T> void assign(T& member, T value) {
    const std::lock_guard lock(lock_);
    member = std::move(value);
  }

  /// Re-entered when the invalidation callback or a host callback calls back in.
  mutable std::recursive_mutex lock_;
  float notifiedProgress_ = 0;
  double notifiedProgressTime_ = 0;
  uint64_t fileDataSizeHandled_ = 0;
  std::shared_ptr<QVFileHandle> fileHandle_;
  std::string finalFilePath_;
  std::string tempFilePath_;
  std::shared_ptr<QVURLSessionDataTask> fileTransferHTTPOperation_;
  CompletionHandler fileTransferCompletionHandler_;
  ProgressHandler fileTransferProgressHandler_;
  ErrorHandler fileTransferErrorHandler_;
  InvalidationHandler fileTransferInvalidationHandler_;
};
