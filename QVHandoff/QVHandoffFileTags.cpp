#include "QVHandoff/QVHandoffFileTags.h"

#include "Foundation/QVDateFormatting.h"
#include "Foundation/QVExtendedAttributes.h"
#include "Foundation/QVFileOperations.h"
#include "Foundation/QVLog.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffManager.h"

#include <glib.h>

#include <cmath>

QV_LOG_SOURCE_OF("QVHandoff/QVHandoffManager", "QVHandoffManager")

namespace {

// Numbers are stored as their 8 bytes, least significant first, whatever the machine.
QVData littleEndianBytes(uint64_t value) {
  QVData bytes(8);
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<uint8_t>(value >> (8 * i));
  return bytes;
}

std::optional<uint64_t> numberFromLittleEndianBytes(const std::optional<QVData>& bytes) {
  if (!bytes || bytes->size() != 8) return std::nullopt;
  uint64_t value = 0;
  for (size_t i = 0; i < bytes->size(); ++i)
    value |= static_cast<uint64_t>((*bytes)[i]) << (8 * i);
  return value;
}

bool setNumber(uint64_t value, const char* name, const std::string& path) {
  return QVSetExtendedAttribute(path, name, littleEndianBytes(value));
}

std::optional<uint64_t> number(const char* name, const std::string& path) {
  return numberFromLittleEndianBytes(QVGetExtendedAttribute(path, name));
}

} // namespace

namespace QVHandoffFileTags {

void addDocumentInfo(const QVHandoffDocumentInfo& documentInfo, const std::string& path) {
  if (!QVFileExists(path)) {
    QV_LOG_ERROR("File not found at path {}", path);
    return;
  }
  if (!setString(documentInfo.filePath(), QVHandoffFilePathAttributeName, path)) {
    QV_LOG_ERROR("Couldn't set xattr for file path");
    return;
  }
  if (!setNumber(documentInfo.fileSize(), QVHandoffFileSizeAttributeName, path)) {
    QV_LOG_ERROR("Couldn't set xattr for file size");
    return;
  }
  const auto& date = documentInfo.fileModificationDate();
  if (!setString(date ? QVFormatProtocolDate(*date) : "", QVHandoffFileModificationDateAttributeName, path)) {
    QV_LOG_ERROR("Couldn't set xattr for file modification date");
    return;
  }
  if (!setString(documentInfo.deviceName(), QVHandoffDeviceNameAttributeName, path)) {
    QV_LOG_ERROR("Couldn't set xattr for device name");
    return;
  }
  if (!setNumber(static_cast<uint64_t>(documentInfo.deviceType()), QVHandoffDeviceTypeAttributeName, path)) {
    QV_LOG_ERROR("Couldn't set xattr for device type");
    return;
  }
  if (!setString(documentInfo.productName(), QVHandoffProductNameAttributeName, path)) {
    QV_LOG_DEBUG("Couldn't set xattr for product name");
  }
  if (!setString(documentInfo.contentType(), QVHandoffContentTypeAttributeName, path)) {
    QV_LOG_DEBUG("Couldn't set xattr for content type");
  }
}

std::shared_ptr<QVHandoffDocumentInfo> documentInfoForFileAtPath(const std::string& path) {
  if (!QVFileExists(path)) {
    QV_LOG_ERROR("File not found at path {}", path);
    return nullptr;
  }
  // An untagged file is the ordinary case: no line for it.
  const auto filePath = stringForXattrName(QVHandoffFilePathAttributeName, path);
  if (!filePath || filePath->empty()) return nullptr;
  const auto fileSize = number(QVHandoffFileSizeAttributeName, path);
  if (!fileSize) {
    QV_LOG_ERROR("Couldn't load file size from xattr");
    return nullptr;
  }
  const auto dateText = stringForXattrName(QVHandoffFileModificationDateAttributeName, path);
  if (!dateText || dateText->empty()) {
    QV_LOG_ERROR("Couldn't load file modification date xattr");
    return nullptr;
  }
  const auto deviceName = stringForXattrName(QVHandoffDeviceNameAttributeName, path);
  if (!deviceName || deviceName->empty()) {
    QV_LOG_ERROR("Couldn't load device name xattr");
    return nullptr;
  }
  const auto deviceType = number(QVHandoffDeviceTypeAttributeName, path);
  if (!deviceType) {
    QV_LOG_ERROR("Couldn't load device type from xattr");
    return nullptr;
  }
  auto documentInfo = QVHandoffDocumentInfo::make();
  documentInfo->setFilePath(*filePath);
  documentInfo->setFileSize(*fileSize);
  documentInfo->setFileModificationDate(QVParseProtocolDate(*dateText));
  documentInfo->setDeviceName(*deviceName);
  documentInfo->setDeviceType(static_cast<int64_t>(*deviceType));
  documentInfo->setProductName(stringForXattrName(QVHandoffProductNameAttributeName, path).value_or(""));
  documentInfo->setContentType(handoffContentTypeForFileAtPath(path).value_or(""));
  return documentInfo;
}

void removeDocumentInfoFromFileAtPath(const std::string& path) {
  if (!QVFileExists(path)) {
    QV_LOG_ERROR("File not found at path {}", path);
    return;
  }
  // The content type stays: the host still wants to know what kind of document an untagged copy is.
  for (const char* name :
       {QVHandoffFilePathAttributeName, QVHandoffFileSizeAttributeName,
        QVHandoffFileModificationDateAttributeName, QVHandoffOverriddenFileModificationDateAttributeName,
        QVHandoffProductNameAttributeName, QVHandoffDeviceNameAttributeName,
        QVHandoffDeviceTypeAttributeName}) {
    QVRemoveExtendedAttribute(path, name);
  }
}

bool setString(const std::string& string, const std::string& name, const std::string& path) {
  return QVSetExtendedAttribute(path, name, QVData(string.begin(), string.end()));
}

std::optional<std::string> stringForXattrName(const std::string& name, const std::string& path) {
  const auto bytes = QVGetExtendedAttribute(path, name);
  if (!bytes) return std::nullopt;
  std::string text(bytes->begin(), bytes->end());
  if (!g_utf8_validate_len(text.data(), text.size(), nullptr)) return std::nullopt;
  return text;
}

std::optional<std::string> handoffContentTypeForFileAtPath(const std::string& path) {
  return stringForXattrName(QVHandoffContentTypeAttributeName, path);
}

void setOverriddenFileModificationDate(QVDate date, const std::string& path) {
  const QVDate wholeSeconds(std::chrono::floor<std::chrono::seconds>(date.time_since_epoch()));
  setString(QVFormatProtocolDate(wholeSeconds), QVHandoffOverriddenFileModificationDateAttributeName, path);
}

std::optional<QVDate> overriddenFileModificationDateForFileAtPath(const std::string& path) {
  const auto text = stringForXattrName(QVHandoffOverriddenFileModificationDateAttributeName, path);
  if (!text) return std::nullopt;
  return QVParseProtocolDate(*text);
}

std::optional<QVDate> latestFileModificationDateForFileAtPath(const std::string& path) {
  QVError error;
  const auto attributes = QVAttributesOfItem(path, &error);
  if (!attributes) {
    QV_LOG_ERROR("Couldn't get attributes of item at path {} due {}", path, error.description());
    return std::nullopt;
  }
  const auto overridden = overriddenFileModificationDateForFileAtPath(path);
  if (overridden && *overridden > attributes->fileModificationDate) return overridden;
  return attributes->fileModificationDate;
}

bool datesAreSimilar(const std::optional<QVDate>& date, const std::optional<QVDate>& other) {
  if (!date) return true;
  if (!other) return false;
  return std::fabs(std::chrono::duration<double>(*date - *other).count()) < 1.0;
}

} // namespace QVHandoffFileTags
