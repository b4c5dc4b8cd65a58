#pragma once
// One document on either side of a handoff: open locally, listed by a peer, or a downloaded copy tagged
// with its origin. While a download runs it also carries that transfer's state and the caller's callbacks.

#include "Foundation/QVTypes.h"
#include "QVHandoff/QVHandoffExport.h"

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
  using CompletionHandler = std::function<void(const std::string& filePath)>;
  using ProgressHandler = std::function<void(float progress)>;
  using ErrorHandler = std::function<void(const QVError& error)>;
  using InvalidationHandler = std::function<void()>;

  static std::shared_ptr<QVHandoffDocumentInfo> make() { return std::make_shared<QVHandoffDocumentInfo>(); }

  // A clean description of the document: the eleven descriptive fields, no transfer, no parent.
  std::shared_ptr<QVHandoffDocumentInfo> copy() const;
  // Path, device name, date and size; a record without path, device name or date equals nothing.
  bool isEqualToDocumentInfo(const QVHandoffDocumentInfo& other) const;
  std::string description() const;

  // The last path component without its last extension; none without a path.
  std::optional<std::string> fileName() const;
  bool hasRemoteInfo() const;
  bool fileTransferred() const;

  // Descriptive fields. An empty string stands for an absent one.
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
  const std::string& contentType() const { return contentType_; }
  void setContentType(std::string value) { contentType_ = std::move(value); }
  const std::optional<QVDate>& fileModificationDate() const { return fileModificationDate_; }
  void setFileModificationDate(std::optional<QVDate> value) { fileModificationDate_ = value; }
  uint64_t fileSize() const { return fileSize_; }
  void setFileSize(uint64_t value) { fileSize_ = value; }
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

  // The peer's record this document belongs to; not owned. Setting a record copies its names.
  std::shared_ptr<QVHandoffServerInfo> parentServerInfo() const { return parentServerInfo_.lock(); }
  void setParentServerInfo(const std::shared_ptr<QVHandoffServerInfo>& serverInfo);

  // Transfer state, driven by the download.
  float notifiedProgress() const { return notifiedProgress_; }
  double notifiedProgressTime() const { return notifiedProgressTime_; }
  uint64_t fileDataSizeHandled() const { return fileDataSizeHandled_; }
  const std::shared_ptr<QVFileHandle>& fileHandle() const { return fileHandle_; }
  void setFileHandle(std::shared_ptr<QVFileHandle> value) { fileHandle_ = std::move(value); }
  const std::string& finalFilePath() const { return finalFilePath_; }
  void setFinalFilePath(std::string value) { finalFilePath_ = std::move(value); }
  const std::string& tempFilePath() const { return tempFilePath_; }
  void setTempFilePath(std::string value) { tempFilePath_ = std::move(value); }
  const std::shared_ptr<QVURLSessionDataTask>& fileTransferHTTPOperation() const {
    return fileTransferHTTPOperation_;
  }
  void setFileTransferHTTPOperation(std::shared_ptr<QVURLSessionDataTask> value) {
    fileTransferHTTPOperation_ = std::move(value);
  }
  void setFileTransferCompletionHandler(CompletionHandler value) {
    fileTransferCompletionHandler_ = std::move(value);
  }
  void setFileTransferProgressHandler(ProgressHandler value) {
    fileTransferProgressHandler_ = std::move(value);
  }
  void setFileTransferErrorHandler(ErrorHandler value) { fileTransferErrorHandler_ = std::move(value); }
  void setFileTransferInvalidationHandler(InvalidationHandler value) {
    fileTransferInvalidationHandler_ = std::move(value);
  }
  const CompletionHandler& fileTransferCompletionHandler() const { return fileTransferCompletionHandler_; }
  const ProgressHandler& fileTransferProgressHandler() const { return fileTransferProgressHandler_; }
  const ErrorHandler& fileTransferErrorHandler() const { return fileTransferErrorHandler_; }
  const InvalidationHandler& fileTransferInvalidationHandler() const {
    return fileTransferInvalidationHandler_;
  }

  // Each decrypted chunk of the download, on the network thread.
  void handleFileTransferData(const uint8_t* bytes, size_t length);
  void handleFileTransferData(const QVData& data) { handleFileTransferData(data.data(), data.size()); }
  void handleFileTransferProgress(float progress);
  void handleFileTransferCompletion(const std::string& filePath);
  void handleFileTransferError(const QVError& error);
  // Tears the transfer down: temporary file, counters, handle, request, callbacks; then the invalidation
  // callback, once.
  void invalidateFileTransferRelatedData();
  // Deletes the (partial) downloaded copy.
  void invalidateFile();

private:
  float notifiedProgress_ = 0;
  double notifiedProgressTime_ = 0;
  uint64_t fileDataSizeHandled_ = 0;
  std::string filePath_;
  uint64_t pageNumber_ = 0;
  QVPoint pdfPoint_;
  std::string iCloudPath_;
  std::string dropboxPath_;
  std::string contentType_;
  std::optional<QVDate> fileModificationDate_;
  uint64_t fileSize_ = 0;
  int64_t deviceType_ = 0;
  std::string productName_;
  std::string deviceName_;
  std::string saveBackFilePath_;
  std::shared_ptr<QVFileHandle> fileHandle_;
  std::string finalFilePath_;
  std::string tempFilePath_;
  std::string remoteFilePath_;
  std::string remoteDeviceName_;
  std::weak_ptr<QVHandoffServerInfo> parentServerInfo_;
  std::shared_ptr<QVURLSessionDataTask> fileTransferHTTPOperation_;
  CompletionHandler fileTransferCompletionHandler_;
  ProgressHandler fileTransferProgressHandler_;
  ErrorHandler fileTransferErrorHandler_;
  InvalidationHandler fileTransferInvalidationHandler_;
  // Chunk writing and teardown never overlap; re-entered when the invalidation callback calls back in.
  std::recursive_mutex lock_;
};
