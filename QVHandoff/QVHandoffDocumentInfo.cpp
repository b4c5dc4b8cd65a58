// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffDocumentInfo.h"

#include "QVHandoff/QVHandoffServerInfo.h"

#include <fmt/format.h>

#include <chrono>
#include <ctime>

namespace {

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

} // namespace

std::shared_ptr<QVHandoffDocumentInfo> QVHandoffDocumentInfo::copy() const {
  auto copy = make();
  copy->setFilePath(filePath_);
  copy->setPageNumber(pageNumber_);
  copy->setPdfPoint(pdfPoint_);
  copy->setICloudPath(iCloudPath_);
  copy->setDropboxPath(dropboxPath_);
  copy->setFileSize(fileSize());
  copy->setFileModificationDate(fileModificationDate());
  copy->setContentType(contentType());
  copy->setProductName(productName_);
  copy->setDeviceType(deviceType_);
  copy->setDeviceName(deviceName_);
  return copy;
}

bool QVHandoffDocumentInfo::isEqualToDocumentInfo(const QVHandoffDocumentInfo& other) const {
  if (filePath_.empty() || filePath_ != other.filePath_) return false;
  if (deviceName_.empty() || deviceName_ != other.deviceName_) return false;
  const auto date = fileModificationDate();
  if (!date || date != other.fileModificationDate()) return false;
  return fileSize() == other.fileSize();
}

std::string QVHandoffDocumentInfo::description() const {
  std::string text = fmt::format("<QVHandoffDocumentInfo: {}>", static_cast<const void*>(this));
  const auto append = [&text](const char* label, const std::string& value) {
    if (!value.empty()) text += fmt::format(" {}({})", label, value);
  };
  append("productName", productName_);
  append("deviceName", deviceName_);
  append("filePath", filePath_);
  append("contentType", contentType());
  append("saveBackfilePath", saveBackFilePath_);
  if (const auto date = fileModificationDate()) append("fileModificationDate", describeDate(*date));
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
  return fileDataSizeHandled() == fileSize();
}

void QVHandoffDocumentInfo::setParentServerInfo(const std::shared_ptr<QVHandoffServerInfo>& serverInfo) {
  if (parentServerInfo_.lock() == serverInfo) return;
  parentServerInfo_ = serverInfo;
  if (!serverInfo) return;
  if (!serverInfo->productName().empty()) productName_ = serverInfo->productName();
  if (auto name = serverInfo->deviceName(); !name.empty()) deviceName_ = std::move(name);
  if (serverInfo->deviceType() != 0) deviceType_ = serverInfo->deviceType();
}

std::shared_ptr<QVHandoffTransfer> QVHandoffDocumentInfo::fileTransfer() const {
  const std::lock_guard lock(fileTransferLock_);
  return fileTransfer_;
}

void QVHandoffDocumentInfo::setFileTransfer(std::shared_ptr<QVHandoffTransfer> transfer) {
  const std::lock_guard lock(fileTransferLock_);
  fileTransfer_ = transfer ? std::move(transfer) : std::make_shared<QVHandoffTransfer>();
}
