#pragma once
// The one object through which the host drives the framework.

#include "Foundation/QVFileOperations.h"
#include "Foundation/QVTypes.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

class QVHandoffDocumentInfo;

// Notifications (value = name).
inline constexpr const char* QVHandoffManagerDidUpdateServersInfoNotification =
    "QVHandoffManagerDidUpdateServersInfoNotification";
inline constexpr const char* QVHandoffManagerDidChangeActiveRemoteDocumentNotification =
    "QVHandoffManagerDidChangeActiveRemoteDocumentNotification";
inline constexpr const char* QVHandoffManagerSaveBackFileProgressNotification =
    "QVHandoffManagerSaveBackFileProgressNotification";
inline constexpr const char* QVHandoffManagerWillSaveBackRemoteDocumentNotification =
    "QVHandoffManagerWillSaveBackRemoteDocumentNotification";
inline constexpr const char* QVHandoffManagerDidSaveBackRemoteDocumentNotification =
    "QVHandoffManagerDidSaveBackRemoteDocumentNotification";
inline constexpr const char* QVHandoffManagerDidFailSaveBackRemoteDocumentNotification =
    "QVHandoffManagerDidFailSaveBackRemoteDocumentNotification";
inline constexpr const char* QVHandoffManagerWillHandoffLocalDocumentNotification =
    "QVHandoffManagerWillHandoffLocalDocumentNotification";
inline constexpr const char* QVHandoffManagerWillSaveBackLocalDocumentNotification =
    "QVHandoffManagerWillSaveBackLocalDocumentNotification";
inline constexpr const char* QVHandoffManagerDidMarkLocalFileAsModifiedNotification =
    "QVHandoffManagerDidMarkLocalFileAsModifiedNotification";
inline constexpr const char* QVHandoffManagerRequestsForceSaveBackRemoteFileNotification =
    "QVHandoffManagerRequestsForceSaveBackRemoteFileNotification";

// userInfo keys (value = name).
inline constexpr const char* QVHandoffManagerFilePathKey = "QVHandoffManagerFilePathKey";
inline constexpr const char* QVHandoffManagerOriginalFilePathKey = "QVHandoffManagerOriginalFilePathKey";
inline constexpr const char* QVHandoffManagerPageNumberKey = "QVHandoffManagerPageNumberKey";
inline constexpr const char* QVHandoffManagerPDFPointKey = "QVHandoffManagerPDFPointKey";
inline constexpr const char* QVHandoffManagerProgressKey = "QVHandoffManagerProgressKey";
inline constexpr const char* QVHandoffManagerDeviceNameKey = "QVHandoffManagerDeviceNameKey";
inline constexpr const char* QVHandoffManagerDeviceTypeKey = "QVHandoffManagerDeviceTypeKey";
inline constexpr const char* QVHandoffManagerFileModificationDateKey =
    "QVHandoffManagerFileModificationDateKey";
inline constexpr const char* QVHandoffManagerDocumentInfoKey = "QVHandoffManagerDocumentInfoKey";

// Extended attributes of a handed-off copy.
inline constexpr const char* QVHandoffFilePathAttributeName = "com.quorvel.paperloom.handoff.filePath";
inline constexpr const char* QVHandoffFileSizeAttributeName = "com.quorvel.paperloom.handoff.fileSize";
inline constexpr const char* QVHandoffFileModificationDateAttributeName =
    "com.quorvel.paperloom.handoff.fileModificationDate";
inline constexpr const char* QVHandoffDeviceNameAttributeName = "com.quorvel.paperloom.handoff.deviceName";
inline constexpr const char* QVHandoffDeviceTypeAttributeName = "com.quorvel.paperloom.handoff.deviceType";
inline constexpr const char* QVHandoffProductNameAttributeName = "com.quorvel.paperloom.handoff.productName";
inline constexpr const char* QVHandoffContentTypeAttributeName = "com.quorvel.paperloom.handoff.contentType";
inline constexpr const char* QVHandoffOverriddenFileModificationDateAttributeName =
    "com.quorvel.paperloom.handoff.overriddenFileModificationDate";

inline constexpr const char* QVHandoffDirectoryName = "com.quorvel.handoff";
inline constexpr const char* QVHandoffErrorDomain = "com.quorvel.qvhandoff";

// Replaceable file operations: how a local document is copied for a peer, how a saved-back copy replaces
// it, how its attributes are read.
using QVHandoffCopyFileBlock =
    std::function<bool(const std::string& sourcePath, const std::string& destinationPath, QVError* error)>;
using QVHandoffMoveFileBlock =
    std::function<bool(const std::string& sourcePath, const std::string& destinationPath, QVError* error)>;
using QVHandoffFileAttributesBlock =
    std::function<std::optional<QVFileAttributes>(const std::string& path, QVError* error)>;

extern const QVHandoffCopyFileBlock QVHandoffManagerDefaultCopyFileBlock;
extern const QVHandoffMoveFileBlock QVHandoffManagerDefaultMoveFileBlock;
extern const QVHandoffFileAttributesBlock QVHandoffManagerDefaultFileAttributesBlock;

class QVHandoffManager : public std::enable_shared_from_this<QVHandoffManager> {
public:
  static std::shared_ptr<QVHandoffManager> defaultManager();
  static QVError internalError();

  // Tagging of handed-off copies.
  static void addDocumentInfo(const QVHandoffDocumentInfo& documentInfo, const std::string& toFileAtPath);
  static std::shared_ptr<QVHandoffDocumentInfo> documentInfoForFileAtPath(const std::string& path);
  static void removeDocumentInfoFromFileAtPath(const std::string& path);
  static bool setString(const std::string& string, const std::string& xattrName,
                        const std::string& forFileAtPath);
  static std::optional<std::string> stringForXattrName(const std::string& xattrName,
                                                       const std::string& fromFileAtPath);
  static std::shared_ptr<QVHandoffDocumentInfo>
  documentInfo(const QVHandoffDocumentInfo& documentInfo,
               const std::unordered_set<std::shared_ptr<QVHandoffDocumentInfo>>& fromSet);
  static std::optional<std::string> handoffContentTypeForFileAtPath(const std::string& path);

  // Modification dates.
  static void setOverriddenFileModificationDate(QVDate date, const std::string& forFileAtPath);
  static void setOverriddenFileModificationDateToCurrentDateForFileAtPath(const std::string& path);
  static std::optional<QVDate> overriddenFileModificationDateForFileAtPath(const std::string& path);
  static std::optional<QVDate> latestFileModificationDateForFileAtPath(const std::string& path);
  static bool date(const std::optional<QVDate>& date, const std::optional<QVDate>& isSimilarToDate);

  // Paths.
  std::string handoffDirectoryPath();
  static std::string defaultHandoffDirectoryPath() { return defaultManager()->handoffDirectoryPath(); }
  static std::string uniqueEmptyHandoffFilePathForDocumentWithInfo(const QVHandoffDocumentInfo& documentInfo);
  static std::string handoffFilePathForDocumentWithInfo(const QVHandoffDocumentInfo& documentInfo);
  static bool handoffReadyFilePath(const std::string& path);

  // The replaceable file operations and what the server side calls through them.
  QVHandoffCopyFileBlock copyFileBlock() const;
  void setCopyFileBlock(QVHandoffCopyFileBlock block);
  QVHandoffMoveFileBlock moveFileBlock() const;
  void setMoveFileBlock(QVHandoffMoveFileBlock block);
  QVHandoffFileAttributesBlock fileAttributesBlock() const;
  void setFileAttributesBlock(QVHandoffFileAttributesBlock block);
  std::optional<QVFileAttributes> attributesOfHandoffDocumentAtPath(const std::string& path,
                                                                    QVError* error) const;
  bool copyHandoffDocumentAtPath(const std::string& path, const std::string& toPath, QVError* error);
  bool moveSavedBackDocumentAtPath(const std::string& path, const std::string& toOriginalPath,
                                   QVError* error);

  QVHandoffManager();

  // Documents open locally. The host replaces the list whole on the main thread; connection threads
  // read it as an immutable snapshot.
  using DocumentInfoList = std::vector<std::shared_ptr<QVHandoffDocumentInfo>>;
  std::shared_ptr<const DocumentInfoList> localDocumentsInfo() const;
  void setLocalDocumentsInfo(std::shared_ptr<const DocumentInfoList> documentsInfo);
  uint64_t currentLocalDocumentIndex() const { return currentLocalDocumentIndex_; }
  void setCurrentLocalDocumentIndex(uint64_t index);
  std::shared_ptr<QVHandoffDocumentInfo> localDocumentInfoForFilePath(const std::string& path) const;

  void postDidFailSaveBackRemoteDocumentNotificationForLocalFilePath(const std::string& path);

private:
  mutable std::mutex localDocumentsMutex_;
  std::shared_ptr<const DocumentInfoList> localDocumentsInfo_ = std::make_shared<const DocumentInfoList>();
  std::atomic<uint64_t> currentLocalDocumentIndex_ = 0;

  // The blocks are read by connection threads while the host may replace them.
  mutable std::mutex blocksMutex_;
  QVHandoffCopyFileBlock copyFileBlock_;
  QVHandoffMoveFileBlock moveFileBlock_;
  QVHandoffFileAttributesBlock fileAttributesBlock_;
  std::once_flag handoffDirectoryOnce_;
  std::string handoffDirectoryPath_;
};
