// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffFileTags.h"

#include "Foundation/QVDateFormatting.h"
#include "Foundation/QVExtendedAttributes.h"
#include "Foundation/QVFileOperations.h"
#include "Foundation/QVLog.h"
#include "QVHandoff/QVHandoffCopyIndex.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffManager.h"

#include <glib.h>

#include <cerrno>
#include <cmath>
#include <functional>
#include <iterator>
#include <vector>

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

QVData bytesOf(const std::string& text) {
  return QVData(text.begin(), text.end());
}

std::optional<std::string> utf8Text(const std::optional<QVData>& bytes) {
  if (!bytes) return std::nullopt;
  std::string text(bytes->begin(), bytes->end());
  if (!g_utf8_validate_len(text.data(), text.size(), nullptr)) return std::nullopt;
  return text;
}

bool nonEmpty(const std::optional<QVData>& bytes) {
  return bytes && !bytes->empty();
}

} // namespace

namespace QVHandoffFileTags {

void addDocumentInfo(const QVHandoffDocumentInfo& documentInfo, const std::string& path) {
  if (!QVFileExists(path)) {
    QV_LOG_ERROR("File not found at path {}", path);
    return;
  }
  const auto& date = documentInfo.fileModificationDate();
  const std::string dateText = date ? QVFormatProtocolDate(*date) : "";
  // In the order they are written; the first five are essential and a failure there stops the tagging.
  const struct {
    const char* name;
    QVData value;
    const char* failure;
  } tags[] = {
      {QVHandoffFilePathAttributeName, bytesOf(documentInfo.filePath()), "Couldn't set xattr for file path"},
      {QVHandoffFileSizeAttributeName, littleEndianBytes(documentInfo.fileSize()),
       "Couldn't set xattr for file size"},
      {QVHandoffFileModificationDateAttributeName, bytesOf(dateText),
       "Couldn't set xattr for file modification date"},
      {QVHandoffDeviceNameAttributeName, bytesOf(documentInfo.deviceName()),
       "Couldn't set xattr for device name"},
      {QVHandoffDeviceTypeAttributeName, littleEndianBytes(static_cast<uint64_t>(documentInfo.deviceType())),
       "Couldn't set xattr for device type"},
      {QVHandoffProductNameAttributeName, bytesOf(documentInfo.productName()),
       "Couldn't set xattr for product name"},
      {QVHandoffContentTypeAttributeName, bytesOf(documentInfo.contentType()),
       "Couldn't set xattr for content type"},
  };
  constexpr size_t kEssentialTags = 5;
  QVHandoffCopyIndex::Tags indexed;
  bool attributesSupported = true;
  for (size_t i = 0; i < std::size(tags); ++i) {
    indexed[tags[i].name] = tags[i].value;
    if (!attributesSupported || QVSetExtendedAttribute(path, tags[i].name, tags[i].value)) continue;
    // A file system without user attributes (vfat, some network shares) keeps its tags in the index alone.
    if (errno == ENOTSUP) {
      attributesSupported = false;
    } else if (i < kEssentialTags) {
      QV_LOG_ERROR("{}", tags[i].failure);
      return;
    } else {
      QV_LOG_DEBUG("{}", tags[i].failure);
    }
  }
  QVHandoffCopyIndex::shared().setTags(path, indexed);
}

std::shared_ptr<QVHandoffDocumentInfo> documentInfoForFileAtPath(const std::string& path) {
  if (!QVFileExists(path)) {
    QV_LOG_ERROR("File not found at path {}", path);
    return nullptr;
  }
  std::function<std::optional<QVData>(const char*)> read = [&](const char* name) {
    return QVGetExtendedAttribute(path, name);
  };
  // Attributes gone (a save by rename makes a new file) or never there: the index has them, and gives them
  // back to the file so that the next reader finds them where they belong.
  std::optional<QVHandoffCopyIndex::Tags> indexed;
  if (!nonEmpty(read(QVHandoffFilePathAttributeName))) {
    indexed = QVHandoffCopyIndex::shared().tags(path);
    if (!indexed) return nullptr;
    for (const auto& [name, value] : *indexed)
      QVSetExtendedAttribute(path, name, value);
    read = [&](const char* name) -> std::optional<QVData> {
      const auto found = indexed->find(name);
      return found == indexed->end() ? std::nullopt : std::optional<QVData>(found->second);
    };
  }
  // An untagged file is the ordinary case: no line for it.
  const auto filePath = utf8Text(read(QVHandoffFilePathAttributeName));
  if (!filePath || filePath->empty()) return nullptr;
  const auto fileSize = numberFromLittleEndianBytes(read(QVHandoffFileSizeAttributeName));
  if (!fileSize) {
    QV_LOG_ERROR("Couldn't load file size from xattr");
    return nullptr;
  }
  const auto dateText = utf8Text(read(QVHandoffFileModificationDateAttributeName));
  if (!dateText || dateText->empty()) {
    QV_LOG_ERROR("Couldn't load file modification date xattr");
    return nullptr;
  }
  const auto deviceName = utf8Text(read(QVHandoffDeviceNameAttributeName));
  if (!deviceName || deviceName->empty()) {
    QV_LOG_ERROR("Couldn't load device name xattr");
    return nullptr;
  }
  const auto deviceType = numberFromLittleEndianBytes(read(QVHandoffDeviceTypeAttributeName));
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
  documentInfo->setProductName(utf8Text(read(QVHandoffProductNameAttributeName)).value_or(""));
  documentInfo->setContentType(utf8Text(read(QVHandoffContentTypeAttributeName)).value_or(""));
  return documentInfo;
}

void removeDocumentInfoFromFileAtPath(const std::string& path) {
  if (!QVFileExists(path)) {
    QV_LOG_ERROR("File not found at path {}", path);
    return;
  }
  // The content type stays: the host still wants to know what kind of document an untagged copy is.
  const std::vector<std::string> names = {QVHandoffFilePathAttributeName,
                                          QVHandoffFileSizeAttributeName,
                                          QVHandoffFileModificationDateAttributeName,
                                          QVHandoffOverriddenFileModificationDateAttributeName,
                                          QVHandoffProductNameAttributeName,
                                          QVHandoffDeviceNameAttributeName,
                                          QVHandoffDeviceTypeAttributeName};
  for (const auto& name : names)
    QVRemoveExtendedAttribute(path, name);
  QVHandoffCopyIndex::shared().removeTags(path, names);
}

bool setString(const std::string& string, const std::string& name, const std::string& path) {
  return QVSetExtendedAttribute(path, name, bytesOf(string));
}

std::optional<std::string> stringForXattrName(const std::string& name, const std::string& path) {
  return utf8Text(QVGetExtendedAttribute(path, name));
}

std::optional<std::string> handoffContentTypeForFileAtPath(const std::string& path) {
  if (auto type = stringForXattrName(QVHandoffContentTypeAttributeName, path)) return type;
  const auto indexed = QVHandoffCopyIndex::shared().tags(path);
  if (!indexed) return std::nullopt;
  const auto found = indexed->find(QVHandoffContentTypeAttributeName);
  return found == indexed->end() ? std::nullopt : utf8Text(found->second);
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
