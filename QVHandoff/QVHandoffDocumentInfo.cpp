#include "QVHandoff/QVHandoffDocumentInfo.h"

#include "Foundation/QVFileHandle.h"
#include "Foundation/QVMainQueue.h"
#include "Network/HTTPClient/QVURLSessionDataTask.h"
#include "QVHandoff/QVHandoffServerInfo.h"

#include <fmt/format.h>

#include <chrono>
#include <ctime>
#include <filesystem>

namespace {

// The smallest progress step worth waking the user interface for, and how often at most.
constexpr float kProgressStep = 0.01f;
constexpr double kProgressInterval = 0.1;

// "2016-03-01 09:05:07 +0000", the way dates read in log lines.
std::string describeDate(QVDate date) {
  const std::time_t seconds =
      std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(date));
  std::tm utc{};
  if (!gmtime_r(&seconds, &utc)) return "(invalid date)";
  char text[64];
  if (std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S +0000", &utc) == 0) return "(invalid date)";
  return text;
}

void removeFileIgnoringFailure(const std::string& path) {
  if (path.empty()) return;
  std::error_code ignored;
  std::filesystem::remove(path, ignored);
}

} // namespace

std::shared_ptr<QVHandoffDocumentInfo> QVHandoffDocumentInfo::copy() const {
  auto copy = make();
  copy->setFilePath(filePath_);
  copy->setPageNumber(pageNumber_);
  copy->setPdfPoint(pdfPoint_);
  copy->setICloudPath(iCloudPath_);
  copy->setDropboxPath(dropboxPath_);
  copy->setFileSize(fileSize_);
  copy->setFileModificationDate(fileModificationDate_);
  copy->setContentType(contentType_);
  copy->setProductName(productName_);
  copy->setDeviceType(deviceType_);
  copy->setDeviceName(deviceName_);
  return copy;
}

bool QVHandoffDocumentInfo::isEqualToDocumentInfo(const QVHandoffDocumentInfo& other) const {
  if (filePath_.empty() || filePath_ != other.filePath_) return false;
  if (deviceName_.empty() || deviceName_ != other.deviceName_) return false;
  if (!fileModificationDate_ || fileModificationDate_ != other.fileModificationDate_) return false;
  return fileSize_ == other.fileSize_;
}

std::string QVHandoffDocumentInfo::description() const {
  std::string text = fmt::format("<QVHandoffDocumentInfo: {}>", static_cast<const void*>(this));
  const auto append = [&text](const char* label, const std::string& value) {
    if (!value.empty()) text += fmt::format(" {}({})", label, value);
  };
  append("productName", productName_);
  append("deviceName", deviceName_);
  append("filePath", filePath_);
  append("contentType", contentType_);
  append("saveBackfilePath", saveBackFilePath_);
  if (fileModificationDate_) append("fileModificationDate", describeDate(*fileModificationDate_));
  return text;
}

std::optional<std::string> QVHandoffDocumentInfo::fileName() const {
  if (filePath_.empty()) return std::nullopt;
  std::string_view path = filePath_;
  // A trailing slash does not make the last component empty.
  while (path.size() > 1 && path.back() == '/')
    path.remove_suffix(1);
  if (path == "/") return std::string(path);
  const auto slash = path.rfind('/');
  std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
  // Only the last extension goes, and a leading dot names a hidden file rather than starting one.
  const auto dot = name.rfind('.');
  if (dot != std::string_view::npos && dot > 0) name = name.substr(0, dot);
  return std::string(name);
}

bool QVHandoffDocumentInfo::hasRemoteInfo() const {
  return !remoteFilePath_.empty() && !remoteDeviceName_.empty();
}

bool QVHandoffDocumentInfo::fileTransferred() const {
  return fileDataSizeHandled_ == fileSize_;
}

void QVHandoffDocumentInfo::setParentServerInfo(const std::shared_ptr<QVHandoffServerInfo>& serverInfo) {
  if (parentServerInfo_.lock() == serverInfo) return;
  parentServerInfo_ = serverInfo;
  if (!serverInfo) return;
  if (!serverInfo->productName().empty()) productName_ = serverInfo->productName();
  if (auto name = serverInfo->deviceName(); !name.empty()) deviceName_ = std::move(name);
  if (serverInfo->deviceType() != 0) deviceType_ = serverInfo->deviceType();
}

void QVHandoffDocumentInfo::handleFileTransferData(const uint8_t* bytes, size_t length) {
  float progress = 0;
  {
    const std::lock_guard lock(lock_);
    // Bytes that did not reach the file (a full disk) are not counted, so the transfer ends incomplete
    // and its partial copy is deleted rather than handed over truncated.
    if (fileHandle_ && !fileHandle_->write(bytes, length)) return;
    // Without a known size there is nothing to measure progress against.
    if (fileSize_ == 0) return;
    fileDataSizeHandled_ += length;
    progress = static_cast<float>(fileDataSizeHandled_) / static_cast<float>(fileSize_);
  }
  // Outside the lock: the progress callback waits for the main thread, which may itself be waiting for
  // the lock to cancel this transfer.
  handleFileTransferProgress(progress);
}

void QVHandoffDocumentInfo::handleFileTransferProgress(float progress) {
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

void QVHandoffDocumentInfo::handleFileTransferCompletion(const std::string& filePath) {
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

void QVHandoffDocumentInfo::handleFileTransferError(const QVError& error) {
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

void QVHandoffDocumentInfo::invalidateFileTransferRelatedData() {
  const std::lock_guard lock(lock_);
  removeFileIgnoringFailure(tempFilePath_);
  tempFilePath_.clear();
  fileDataSizeHandled_ = 0;
  notifiedProgressTime_ = 0;
  notifiedProgress_ = 0;
  // Each member is cleared before it is acted on, so a call back into the record from close, cancel or
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

void QVHandoffDocumentInfo::invalidateFile() {
  removeFileIgnoringFailure(finalFilePath_);
  finalFilePath_.clear();
}
