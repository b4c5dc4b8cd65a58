// SPDX-License-Identifier: MIT
#pragma once
// One document on either side of a handoff: open locally, listed by a peer, or a downloaded copy tagged
// with its origin. Its transfer accessors reach the transfer it runs now (QVHandoffTransfer).

#include "Foundation/QVTypes.h"
#include "QVHandoff/QVHandoffExport.h"
#include "QVHandoff/QVHandoffTransfer.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

class QVFileHandle;
class QVHandoffServerInfo;
class QVURLSessionDataTask;

class QVHANDOFF_EXPORT QVHandoffDocumentInfo : public std::enable_shared_from_this<QVHandoffDocumentInfo> {
public:
  using CompletionHandler = QVHandoffTransfer::CompletionHandler;
  using ProgressHandler = QVHandoffTransfer::ProgressHandler;
  using ErrorHandler = QVHandoffTransfer::ErrorHandler;
  using InvalidationHandler = QVHandoffTransfer::InvalidationHandler;

  /// An empty record, shared from the start: transfers and peers' records hold it by pointer.
  static std::shared_ptr<QVHandoffDocumentInfo> make() { return std::make_shared<QVHandoffDocumentInfo>(); }

  /// A clean description of the document: the eleven descriptive fields, no transfer, no parent.
  std::shared_ptr<QVHandoffDocumentInfo> copy() const;
  /// Path, device name, date and size; a record without path, device name or date equals nothing.
  bool isEqualToDocumentInfo(const QVHandoffDocumentInfo& other) const;
  /// For logs: the record's address and each descriptive field that is set, on one line.
  std::string description() const;

  /// The last path component without its last extension; none without a path.
  std::optional<std::string> fileName() const;
  /// A downloaded copy that knows its origin: both the remote file path and the remote device name are set.
  bool hasRemoteInfo() const;
  /// Every byte of the download has been handled: the handled count equals fileSize (0 of 0 counts).
  bool fileTransferred() const;

  /// Descriptive fields. An empty string stands for an absent one.
  const std::string& filePath() const { return filePath_; }
  void setFilePath(std::string value) { filePath_ = std::move(value); }
  uint64_t pageNumber() const { return pageNumber_; }
  void setPageNumber(uint64_t value) { pageNumber_ = value; }
  QVPoint pdfPoint() const { return pdfPoint_; }
  void setPdfPoint(QVPoint value) { pdfPoint_ = value; }
  const std::string& iCloudPath() const { return iCloudPath_; }
  void setICloudPath(std::string value) { iCloudPath_ = std::move(value); }
  const std::string& dropboxPath() const { return dropboxPath_; }
  void setDropboxPath(std::string value) { dropboxPath_ = std::move(value); }
  /// The tabs list sets these three on a connection thread while the host reads them: by value, locked.
  std::string contentType() const {
    std::lock_guard lock(servedFieldsLock_);
    return contentType_;
  }
  void setContentType(std::string value) {
    std::lock_guard lock(servedFieldsLock_);
    contentType_ = std::move(value);
  }
  std::optional<QVDate> fileModificationDate() const {
    std::lock_guard lock(servedFieldsLock_);
    return fileModificationDate_;
  }
  void setFileModificationDate(std::optional<QVDate> value) {
    std::lock_guard lock(servedFieldsLock_);
    fileModificationDate_ = value;
  }
  /// Also read by the data thread, to measure progress.
  uint64_t fileSize() const { return fileSize_.load(std::memory_order_relaxed); }
  void setFileSize(uint64_t value) { fileSize_.store(value, std::memory_order_relaxed); }
  /// Where the document is open: the device's type, product and name; then the local copy that is to be
  /// saved back to its origin, and that origin's path and device. An empty string stands for an absent one.
  int64_t deviceType() const { return deviceType_; }
  void setDeviceType(int64_t value) { deviceType_ = value; }
  const std::string& productName() const { return productName_; }
  void setProductName(std::string value) { productName_ = std::move(value); }
  const std::string& deviceName() const { return deviceName_; }
  void setDeviceName(std::string value) { deviceName_ = std::move(value); }
  const std::string& saveBackFilePath() const { return saveBackFilePath_; }
  void setSaveBackFilePath(std::string value) { saveBackFilePath_ = std::move(value); }
  const std::string& remoteFilePath() const { return remoteFilePath_; }
  void setRemoteFilePath(std::string value) { remoteFilePath_ = std::move(value); }
  const std::string& remoteDeviceName() const { return remoteDeviceName_; }
  void setRemoteDeviceName(std::string value) { remoteDeviceName_ = std::move(value); }

  /// The peer's record this document belongs to; not owned. Setting a record copies its names.
  std::shared_ptr<QVHandoffServerInfo> parentServerInfo() const { return parentServerInfo_.lock(); }
  void setParentServerInfo(const std::shared_ptr<QVHandoffServerInfo>& serverInfo);

  /// The transfer this record runs now. Starting a transfer replaces it; whoever drives the older one keeps
  /// it, torn down, so that nothing of it reaches the new one.
  std::shared_ptr<QVHandoffTransfer> fileTransfer() const;
  void setFileTransfer(std::shared_ptr<QVHandoffTransfer> transfer);

  /// Transfer state: each forwards to the current transfer, under its lock.
  float notifiedProgress() const { return fileTransfer()->notifiedProgress(); }
  double notifiedProgressTime() const { return fileTransfer()->notifiedProgressTime(); }
  uint64_t fileDataSizeHandled() const { return fileTransfer()->fileDataSizeHandled(); }
  std::shared_ptr<QVFileHandle> fileHandle() const { return fileTransfer()->fileHandle(); }
  void setFileHandle(std::shared_ptr<QVFileHandle> value) { fileTransfer()->setFileHandle(std::move(value)); }
  std::string finalFilePath() const { return fileTransfer()->finalFilePath(); }
  void setFinalFilePath(std::string value) { fileTransfer()->setFinalFilePath(std::move(value)); }
  std::string tempFilePath() const { return fileTransfer()->tempFilePath(); }
  void setTempFilePath(std::string value) { fileTransfer()->setTempFilePath(std::move(value)); }
  std::shared_ptr<QVURLSessionDataTask> fileTransferHTTPOperation() const {
    return fileTransfer()->fileTransferHTTPOperation();
  }
  void setFileTransferHTTPOperation(std::shared_ptr<QVURLSessionDataTask> value) {
    fileTransfer()->setFileTransferHTTPOperation(std::move(value));
  }
  void setFileTransferCompletionHandler(CompletionHandler value) {
    fileTransfer()->setFileTransferCompletionHandler(std::move(value));
  }
  void setFileTransferProgressHandler(ProgressHandler value) {
    fileTransfer()->setFileTransferProgressHandler(std::move(value));
  }
  void setFileTransferErrorHandler(ErrorHandler value) {
    fileTransfer()->setFileTransferErrorHandler(std::move(value));
  }
  void setFileTransferInvalidationHandler(InvalidationHandler value) {
    fileTransfer()->setFileTransferInvalidationHandler(std::move(value));
  }
  CompletionHandler fileTransferCompletionHandler() const {
    return fileTransfer()->fileTransferCompletionHandler();
  }
  ProgressHandler fileTransferProgressHandler() const {
    return fileTransfer()->fileTransferProgressHandler();
  }
  ErrorHandler fileTransferErrorHandler() const { return fileTransfer()->fileTransferErrorHandler(); }
  InvalidationHandler fileTransferInvalidationHandler() const {
    return fileTransfer()->fileTransferInvalidationHandler();
  }

  /// Each decrypted chunk of the download.
  void handleFileTransferData(const uint8_t* bytes, size_t length) {
    fileTransfer()->handleFileTransferData(bytes, length, fileSize());
  }
  void handleFileTransferData(const QVData& data) { handleFileTransferData(data.data(), data.size()); }
  /// Hands the progress to the host's callback on the main thread, at most every 0.1 s and in steps of at
  /// least 1%; silent once the transfer is torn down.
  void handleFileTransferProgress(float progress) { fileTransfer()->handleFileTransferProgress(progress); }
  /// Ends the transfer and hands `filePath` to the completion callback on the main thread; the copy there is
  /// the caller's from then on and no teardown deletes it.
  void handleFileTransferCompletion(const std::string& filePath) {
    fileTransfer()->handleFileTransferCompletion(filePath);
  }
  /// Ends the transfer, deletes the partial copy and hands `error` to the error callback on the main thread.
  void handleFileTransferError(const QVError& error) { fileTransfer()->handleFileTransferError(error); }
  /// Tears the transfer down: temporary file, counters, handle, request, callbacks; then the invalidation
  /// callback, once.
  void invalidateFileTransferRelatedData() { fileTransfer()->invalidateFileTransferRelatedData(); }
  /// Deletes the (partial) downloaded copy.
  void invalidateFile() { fileTransfer()->invalidateFile(); }

private:
  std::string filePath_;
  uint64_t pageNumber_ = 0;
  QVPoint pdfPoint_;
  std::string iCloudPath_;
  std::string dropboxPath_;
  std::string contentType_;
  std::optional<QVDate> fileModificationDate_;
  std::atomic<uint64_t> fileSize_ = 0;
  int64_t deviceType_ = 0;
  std::string productName_;
  std::string deviceName_;
  std::string saveBackFilePath_;
  std::string remoteFilePath_;
  std::string remoteDeviceName_;
  std::weak_ptr<QVHandoffServerInfo> parentServerInfo_;
  /// Guards only which transfer is current; never held while the transfer runs code.
  mutable std::mutex fileTransferLock_;
  mutable std::mutex servedFieldsLock_;
  std::shared_ptr<QVHandoffTransfer> fileTransfer_ = std::make_shared<QVHandoffTransfer>();
};
