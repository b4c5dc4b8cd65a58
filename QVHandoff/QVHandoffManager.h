#pragma once
// The one object through which the host drives the framework.

#include "Foundation/QVFileOperations.h"
#include "Foundation/QVNotificationCenter.h"
#include "Foundation/QVTypes.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffHTTPServer.h"
#include "QVHandoff/QVHandoffMetaStorage.h"
#include "QVHandoff/QVHandoffPeerRegistry.h"
#include "QVHandoff/QVHandoffPlatform.h"
#include "QVHandoff/QVHandoffProtocol.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

class QVHandoffServerContext;
class QVHandoffServerInfo;
class QVHTTPSessionManager;
class QVNetService;
class QVNetServiceBrowser;
class QVURLRequest;

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

// Confined to the main thread except where a member says otherwise (the blocks, the local documents, the
// two flags and the two sets of transfers are also read by connection and transfer threads).
class QVHandoffManager : public std::enable_shared_from_this<QVHandoffManager>,
                         public QVHandoffMetaStorageDelegate,
                         public QVHandoffHTTPServerDelegate,
                         public QVHandoffPeerRegistry::Owner {
public:
  using ProgressHandler = QVHandoffDocumentInfo::ProgressHandler;
  using CompletionHandler = QVHandoffDocumentInfo::CompletionHandler;
  using ErrorHandler = QVHandoffDocumentInfo::ErrorHandler;
  using ServerInfoList = std::vector<std::shared_ptr<QVHandoffServerInfo>>;
  using MetaStorageList = std::vector<std::shared_ptr<QVHandoffMetaStorage>>;
  using DocumentInfoSet = std::unordered_set<std::shared_ptr<QVHandoffDocumentInfo>>;
  // (document, index, stop) -> keep the document.
  using DocumentInfoTest = std::function<bool(const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo,
                                              uint64_t index, bool* stop)>;

  static std::shared_ptr<QVHandoffManager> defaultManager();
  // A manager of its own, independent of the default one (tests, hosts with several), reaching the network
  // through `platform`; without an HTTP client it gets one of its own, without an engine it finds no peer.
  static std::shared_ptr<QVHandoffManager> make(QVHandoffPlatform platform = QVHandoffPlatform::make());
  static QVError internalError();

  // ---- Lifecycle and service control ----
  // Index 0 becomes the master storage. Setting the list already set does nothing.
  void setMetaStorages(MetaStorageList metaStorages);
  const MetaStorageList& metaStorages() const { return metaStorages_; }
  const std::shared_ptr<QVHandoffMetaStorage>& masterStorage() const { return masterStorage_; }
  // One per meta storage, same index.
  const std::vector<std::shared_ptr<QVNetServiceBrowser>>& serviceBrowsers() const;
  void startHandoffService();
  void stopHandoffService();
  bool serviceStarted() const { return serviceStarted_; }
  bool iCloudWasNotConfiguredOnServiceStart() const { return iCloudWasNotConfiguredOnServiceStart_; }
  void restartServiceIfNeeded();
  void initMetaStoragesRelatedData();
  void invalidateMetaStoragesRelatedData();
  void iCloudAccountStateDidChangeNotification();
  void metaDataStorageDidChange(const std::shared_ptr<QVHandoffMetaStorage>& storage) override;
  // 3: a desktop installation.
  static int64_t deviceType();
  // The host's display name, published to peers. Set by the host before the service starts.
  static std::string productName();
  static void setProductName(std::string productName);
  // "_qvhandoff<service type>._tcp", or none for an empty service type.
  static std::optional<std::string> serviceTypeFromStorage(const QVHandoffMetaStorage& storage);
  static QVError errorFromNetServiceErrorDictionary(const QVUserInfo& errorDictionary);

  // ---- Publishing ----
  std::shared_ptr<QVHandoffHTTPServer> localServer();
  // What the local server's connections reach this manager through; a server of the host's own may take
  // it too. Made on first use.
  std::shared_ptr<QVHandoffServerContext> serverContext();
  // The port the local server listens on at every start; 0 (the default) lets the system choose one.
  void setServerPort(uint16_t port);
  uint16_t serverPort() const { return serverPort_; }
  void startPublishing();
  void stopPublishing();
  // After the host changed records of the list in place.
  void updateLocalDocumentsInfo();
  void updateLocalServerTXTData();
  // Arrives on a DNS-SD thread.
  void handoffHTTPServerDidPublish(QVHandoffHTTPServer& server) override;

  // ---- Discovery and the registry of remote servers (forwarded to the peer registry) ----
  void startBrowsing();
  void stopBrowsing();
  void netServiceBrowserDidFindService(const std::shared_ptr<QVNetServiceBrowser>& browser,
                                       const std::shared_ptr<QVNetService>& service, bool moreComing);
  void netServiceBrowserDidRemoveService(const std::shared_ptr<QVNetServiceBrowser>& browser,
                                         const std::shared_ptr<QVNetService>& service, bool moreComing);
  void netServiceBrowserDidNotSearch(const std::shared_ptr<QVNetServiceBrowser>& browser,
                                     const QVUserInfo& errorDict);
  void netServiceDidResolveAddress(const std::shared_ptr<QVNetService>& sender);
  void netServiceDidNotResolve(const std::shared_ptr<QVNetService>& sender, const QVUserInfo& errorDict);
  void netServiceDidUpdateTXTRecordData(const std::shared_ptr<QVNetService>& sender, const QVData& data);

  void addRemoteServerInfoForService(const std::shared_ptr<QVNetService>& service, const QVData& AES256Key);
  void removeRemoteServerInfoForService(const std::shared_ptr<QVNetService>& service);
  void updateServerInfoForService(const std::shared_ptr<QVNetService>& service);
  void performTabsListHTTPRequestForServerInfo(const std::shared_ptr<QVHandoffServerInfo>& serverInfo);
  void stopAllOperationsForServerWithInfo(const std::shared_ptr<QVHandoffServerInfo>& serverInfo) override;
  void postServersInfoUpdateNotification() override;
  // After any failed request to a peer: a refused connection forgets its address (a new resolve follows);
  // otherwise the tabs list is fetched again while attempts remain.
  void handleResponseError(const QVError& error,
                           const std::shared_ptr<QVHandoffServerInfo>& fromServerWithInfo);

  std::shared_ptr<QVHandoffServerInfo> remoteServerInfoForService(const QVNetService& service) const;
  uint64_t indexOfRemoteServerInfoForService(const QVNetService& service) const;
  std::shared_ptr<QVHandoffServerInfo> serverInfoForDeviceName(const std::string& deviceName) const;
  std::shared_ptr<QVHandoffServerInfo>
  serverInfoForDocumentInfo(const QVHandoffDocumentInfo& documentInfo) const;
  // Binds a host-held copy to the live record of its device.
  std::shared_ptr<QVHandoffServerInfo>
  identifyServerInfoForDocumentInfo(QVHandoffDocumentInfo& documentInfo) const;
  std::shared_ptr<QVHandoffDocumentInfo>
  updatedRemoteDocumentInfo(const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo) const;

  // The up-to-date live records (for the framework); hosts use the copies of remoteServersInfoPassingTest.
  ServerInfoList remoteServersInfo() const;
  std::optional<ServerInfoList> remoteServersInfoPassingTest(const DocumentInfoTest& test) const;
  const ServerInfoList& serversInfo() const;

  // The HTTP client every request of this manager goes through.
  QVHTTPSessionManager& HTTPSessionManager() const;
  // "Accept-Encoding: x-quorvel-aes256" always; with a type also "Content-Type" and "Content-Encoding".
  static void setContentType(const std::optional<std::string>& contentType, QVURLRequest& forRequest);
  // "http://host:port"; no port part for 0 or 80; one trailing dot of the host dropped.
  static std::string HTTPAddressForHost(const std::string& host, int64_t port);

  // ---- Transfers ----
  void handoffRemoteDocumentWithInfo(const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo,
                                     ProgressHandler progressHandler, CompletionHandler completionHandler,
                                     ErrorHandler errorHandler);
  void performHandoffRemoteDocumentHTTPRequestForDocumentInfo(
      const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo);
  void cancelHandoffRemoteDocumentWithInfo(const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo);
  void saveBackFileAtPath(const std::string& path,
                          const std::shared_ptr<QVHandoffDocumentInfo>& withDocumentInfo,
                          ProgressHandler progressHandler, CompletionHandler completionHandler,
                          ErrorHandler errorHandler);
  void
  performSaveBackHTTPRequestForDocumentWithInfo(const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo);
  void cancelSaveBackDocumentWithInfo(const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo);
  void markAsModifiedFileAtPath(const std::string& path,
                                const std::shared_ptr<QVHandoffDocumentInfo>& withDocumentInfo);
  void performMarkAsModifiedFileHTTPRequestForDocumentInfo(
      const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo);
  bool forceRemoteSaveBackForLocalFileAtPath(const std::string& path);
  bool performForceRemoteSaveBackFileHTTPRequestForDocumentInfo(
      const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo);
  // Records with a download / an upload in flight (copies of the sets); each record's running transfer is
  // a QVHandoffDownload or QVHandoffUpload, reached through fileTransfer().
  DocumentInfoSet handoffDocumentsInfo() const;
  DocumentInfoSet saveBackDocumentsInfo() const;

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

  explicit QVHandoffManager(QVHandoffPlatform platform);

  // Documents open locally. The host replaces the list whole on the main thread; connection threads
  // read it as an immutable snapshot.
  using DocumentInfoList = std::vector<std::shared_ptr<QVHandoffDocumentInfo>>;
  std::shared_ptr<const DocumentInfoList> localDocumentsInfo() const;
  void setLocalDocumentsInfo(std::shared_ptr<const DocumentInfoList> documentsInfo);
  uint64_t currentLocalDocumentIndex() const { return currentLocalDocumentIndex_; }
  void setCurrentLocalDocumentIndex(uint64_t index);
  std::shared_ptr<QVHandoffDocumentInfo> localDocumentInfoForFilePath(const std::string& path) const;

  void postDidFailSaveBackRemoteDocumentNotificationForLocalFilePath(const std::string& path);

  ~QVHandoffManager() override;

private:
  // A hook for the host's own checks after every registry change; empty.
  void performHandoffTests() {}

  // Discovery and the registry: what the manager reaches the network through, and the peer registry it
  // forwards to (made by make(), which has the shared owner the registry needs).
  std::string ownServiceName() override;
  void postActiveRemoteDocumentChange(const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo) override;
  const QVHandoffPlatform platform_;
  std::shared_ptr<QVHandoffPeerRegistry> registry_;

  // Lifecycle state (main thread).
  MetaStorageList metaStorages_;
  std::shared_ptr<QVHandoffMetaStorage> masterStorage_;
  std::shared_ptr<QVHandoffHTTPServer> localServer_;
  std::atomic<uint16_t> serverPort_ = 0;
  std::atomic<bool> iCloudWasNotConfiguredOnServiceStart_ = false;
  std::atomic<bool> serviceStarted_ = false;
  QVNotificationObservation accountStateObservation_;

  // Records with a transfer in flight. A record leaves its set from its transfer's teardown, which may run
  // on the client's data thread (a chunk that fails), hence the lock; each transfer's own state is its own.
  mutable std::mutex transfersMutex_;
  DocumentInfoSet handoffDocumentsInfo_;
  DocumentInfoSet saveBackDocumentsInfo_;

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

  // Publishing: held here, weakly by the server, so that the connections of a manager gone answer 500.
  std::shared_ptr<QVHandoffServerContext> serverContext_;
};
