#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffManager.h"

#include "Foundation/QVDateFormatting.h"
#include "Foundation/QVExtendedAttributes.h"
#include "Foundation/QVFileHandle.h"
#include "Foundation/QVLog.h"
#include "Foundation/QVNotificationCenter.h"
#include "Foundation/QVPaths.h"
#include "Foundation/QVUUID.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <string_view>

QV_LOG_SOURCE("QVHandoff/QVHandoffManager")

namespace fs = std::filesystem;

namespace {

// The error slot receives the operation's error, and is cleared when it succeeds.
template <auto Operation>
bool defaultFileOperation(const std::string& sourcePath, const std::string& destinationPath, QVError* error) {
  QVError operationError;
  const bool done = Operation(sourcePath, destinationPath, &operationError);
  if (error) *error = done ? QVError{} : operationError;
  return done;
}

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

bool isValidUTF8(std::string_view text) {
  size_t at = 0;
  while (at < text.size()) {
    const auto lead = static_cast<unsigned char>(text[at]);
    size_t length;
    uint32_t codePoint;
    if (lead < 0x80) {
      ++at;
      continue;
    } else if ((lead & 0xE0) == 0xC0) {
      length = 2, codePoint = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3, codePoint = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4, codePoint = lead & 0x07;
    } else {
      return false;
    }
    if (at + length > text.size()) return false;
    for (size_t i = 1; i < length; ++i) {
      const auto next = static_cast<unsigned char>(text[at + i]);
      if ((next & 0xC0) != 0x80) return false;
      codePoint = (codePoint << 6) | (next & 0x3F);
    }
    constexpr uint32_t kSmallestOfLength[] = {0, 0, 0x80, 0x800, 0x10000};
    if (codePoint < kSmallestOfLength[length] || codePoint > 0x10FFFF ||
        (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
      return false;
    }
    at += length;
  }
  return true;
}

bool setNumber(uint64_t value, const char* xattrName, const std::string& path) {
  return QVSetExtendedAttribute(path, xattrName, littleEndianBytes(value));
}

// A peer's names must not lead out of the handoff folder: empty, "." and ".." components are dropped.
void appendComponents(fs::path& path, std::string_view components) {
  size_t start = 0;
  while (start <= components.size()) {
    const size_t end = std::min(components.find('/', start), components.size());
    const std::string_view component = components.substr(start, end - start);
    if (!component.empty() && component != "." && component != "..") path /= std::string(component);
    start = end + 1;
  }
}

} // namespace

const QVHandoffCopyFileBlock QVHandoffManagerDefaultCopyFileBlock = defaultFileOperation<&QVCopyItem>;
const QVHandoffMoveFileBlock QVHandoffManagerDefaultMoveFileBlock =
    defaultFileOperation<&QVMoveItemReplacing>;

const QVHandoffFileAttributesBlock QVHandoffManagerDefaultFileAttributesBlock = [](const std::string& path,
                                                                                   QVError* error) {
  QVError readError;
  auto attributes = QVAttributesOfItem(path, &readError);
  if (error) *error = attributes ? QVError{} : readError;
  return attributes;
};

void QVHandoffManager::addDocumentInfo(const QVHandoffDocumentInfo& documentInfo,
                                       const std::string& toFileAtPath) {
  const std::string& path = toFileAtPath;
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

std::shared_ptr<QVHandoffDocumentInfo> QVHandoffManager::documentInfoForFileAtPath(const std::string& path) {
  if (!QVFileExists(path)) {
    QV_LOG_ERROR("File not found at path {}", path);
    return nullptr;
  }
  // An untagged file is the ordinary case: no line for it.
  const auto filePath = stringForXattrName(QVHandoffFilePathAttributeName, path);
  if (!filePath || filePath->empty()) return nullptr;
  const auto fileSize =
      numberFromLittleEndianBytes(QVGetExtendedAttribute(path, QVHandoffFileSizeAttributeName));
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
  const auto deviceType =
      numberFromLittleEndianBytes(QVGetExtendedAttribute(path, QVHandoffDeviceTypeAttributeName));
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
  documentInfo->setContentType(stringForXattrName(QVHandoffContentTypeAttributeName, path).value_or(""));
  return documentInfo;
}

void QVHandoffManager::removeDocumentInfoFromFileAtPath(const std::string& path) {
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

bool QVHandoffManager::setString(const std::string& string, const std::string& xattrName,
                                 const std::string& forFileAtPath) {
  return QVSetExtendedAttribute(forFileAtPath, xattrName, QVData(string.begin(), string.end()));
}

std::optional<std::string> QVHandoffManager::stringForXattrName(const std::string& xattrName,
                                                                const std::string& fromFileAtPath) {
  const auto bytes = QVGetExtendedAttribute(fromFileAtPath, xattrName);
  if (!bytes) return std::nullopt;
  std::string text(bytes->begin(), bytes->end());
  if (!isValidUTF8(text)) return std::nullopt;
  return text;
}

std::shared_ptr<QVHandoffDocumentInfo>
QVHandoffManager::documentInfo(const QVHandoffDocumentInfo& documentInfo,
                               const std::unordered_set<std::shared_ptr<QVHandoffDocumentInfo>>& fromSet) {
  // An absent path or device name matches nothing, as with the records' own equality.
  if (documentInfo.filePath().empty() || documentInfo.deviceName().empty()) return nullptr;
  for (const auto& candidate : fromSet) {
    if (candidate && candidate->filePath() == documentInfo.filePath() &&
        candidate->deviceName() == documentInfo.deviceName()) {
      return candidate;
    }
  }
  return nullptr;
}

std::optional<std::string> QVHandoffManager::handoffContentTypeForFileAtPath(const std::string& path) {
  return stringForXattrName(QVHandoffContentTypeAttributeName, path);
}

void QVHandoffManager::setOverriddenFileModificationDate(QVDate date, const std::string& forFileAtPath) {
  const QVDate wholeSeconds(std::chrono::floor<std::chrono::seconds>(date.time_since_epoch()));
  setString(QVFormatProtocolDate(wholeSeconds), QVHandoffOverriddenFileModificationDateAttributeName,
            forFileAtPath);
}

void QVHandoffManager::setOverriddenFileModificationDateToCurrentDateForFileAtPath(const std::string& path) {
  setOverriddenFileModificationDate(std::chrono::system_clock::now(), path);
}

std::optional<QVDate> QVHandoffManager::overriddenFileModificationDateForFileAtPath(const std::string& path) {
  const auto text = stringForXattrName(QVHandoffOverriddenFileModificationDateAttributeName, path);
  if (!text) return std::nullopt;
  return QVParseProtocolDate(*text);
}

std::optional<QVDate> QVHandoffManager::latestFileModificationDateForFileAtPath(const std::string& path) {
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

bool QVHandoffManager::date(const std::optional<QVDate>& date, const std::optional<QVDate>& isSimilarToDate) {
  // No first date counts as no difference; a first date against no second date is not similar.
  if (!date) return true;
  if (!isSimilarToDate) return false;
  return std::fabs(std::chrono::duration<double>(*date - *isSimilarToDate).count()) < 1.0;
}

std::string QVHandoffManager::handoffDirectoryPath() {
  std::call_once(handoffDirectoryOnce_, [this] {
    handoffDirectoryPath_ = QVCachesDirectoryAdd(QVHandoffDirectoryName);
    QVCreateDirectory(handoffDirectoryPath_);
  });
  return handoffDirectoryPath_;
}

std::string
QVHandoffManager::uniqueEmptyHandoffFilePathForDocumentWithInfo(const QVHandoffDocumentInfo& documentInfo) {
  const fs::path folder = fs::path(defaultHandoffDirectoryPath()) / QVUUIDString();
  QVCreateDirectory(folder.string());
  fs::path peerPath;
  appendComponents(peerPath, documentInfo.filePath());
  std::string filePath = (folder / peerPath.filename()).string();
  QVFileHandle::forCreatingAtPath(filePath);
  return filePath;
}

std::string QVHandoffManager::handoffFilePathForDocumentWithInfo(const QVHandoffDocumentInfo& documentInfo) {
  fs::path path(defaultHandoffDirectoryPath());
  appendComponents(path, documentInfo.deviceName());
  appendComponents(path, documentInfo.filePath());
  QVCreateDirectory(path.parent_path().string());
  return path.string();
}

bool QVHandoffManager::handoffReadyFilePath(const std::string& path) {
  bool isDirectory = false;
  return QVFileExists(path, &isDirectory) && !isDirectory;
}

std::optional<QVFileAttributes> QVHandoffManager::attributesOfHandoffDocumentAtPath(const std::string& path,
                                                                                    QVError* error) const {
  const auto block = fileAttributesBlock();
  return block ? block(path, error) : std::nullopt;
}

bool QVHandoffManager::copyHandoffDocumentAtPath(const std::string& path, const std::string& toPath,
                                                 QVError* error) {
  // Synchronously and on this connection's thread, so the host can save the document before it is read.
  QVNotificationCenter::defaultCenter().post(QVHandoffManagerWillHandoffLocalDocumentNotification, this,
                                             {{QVHandoffManagerFilePathKey, path}});
  const auto block = copyFileBlock();
  return block && block(path, toPath, error);
}

bool QVHandoffManager::moveSavedBackDocumentAtPath(const std::string& path, const std::string& toOriginalPath,
                                                   QVError* error) {
  const auto block = moveFileBlock();
  return block && block(path, toOriginalPath, error);
}
