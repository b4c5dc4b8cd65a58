// SPDX-License-Identifier: MIT
#pragma once
// The one object through which the host drives the framework.

#include "Foundation/QVFileOperations.h"
#include "Foundation/QVNotificationCenter.h"
#include "Foundation/QVTypes.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffExport.h"
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

extern QVHANDOFF_EXPORT const QVHandoffCopyFileBlock QVHandoffManagerDefaultCopyFileBlock;
extern QVHANDOFF_EXPORT const QVHandoffMoveFileBlock QVHandoffManagerDefaultMoveFileBlock;
extern QVHANDOFF_EXPORT const QVHandoffFileAttributesBlock QVHandoffManagerDefaultFileAttributesBlock;

// Confined to the main thread except where a member says otherwise (the blocks, the local documents, the
// two flags and the two sets of transfers are also read by connection and transfer threads).
class QVHANDOFF_EXPORT QVHandoffManager : public std::enable_shared_from_this<QVHandoffManager>,
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
  /// (document, index, stop) -> keep the document.
  using DocumentInfoTest = std::function<bool(const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo,
                                              uint64_t index, bool* stop)>;

  /// The process's manager, created on first use. Main thread.
  static std::shared_ptr<QVHandoffManager> defaultManager();
  /// A manager of its own, independent of the default one (tests, hosts with several), reaching the network
  /// through `platform`; without an HTTP client it gets one of its own, without an engine it finds no peer.
  static std::shared_ptr<QVHandoffManager> make(QVHandoffPlatform platform = QVHandoffPlatform::make());
  /// The manager's own error: domain "com.quorvel.qvhandoff", code 0.
  static QVError internalError();

  // ---- Lifecycle and service control ----
  /// Index 0 becomes the master storage. Setting the list already set does nothing.
  void setMetaStorages(MetaStorageList metaStorages);
  /// The storages of the shared key and service type, master first.
  const MetaStorageList& metaStorages() const { return metaStorages_; }
  /// The storage whose key and service type this installation publishes with.
  const std::shared_ptr<QVHandoffMetaStorage>& masterStorage() const { return masterStorage_; }
  /// One per meta storage, same index.
  const std::vector<std::shared_ptr<QVNetServiceBrowser>>& serviceBrowsers() const;
  /// Publishes the local server and browses for peers; waits for the synced folder when it is not there yet.
  /// Main thread.
  void startHandoffService();
  /// Withdraws the publication, stops browsing and forgets the peers. Returns at once, also from inside a
  /// callback or a notification handler: the server closes its connections in the background.
  void stopHandoffService();
  /// Whether startHandoffService ran and stopHandoffService did not since.
  bool serviceStarted() const { return serviceStarted_; }
  /// Whether the service waits for the synced folder to appear.
  bool iCloudWasNotConfiguredOnServiceStart() const { return iCloudWasNotConfiguredOnServiceStart_; }
  /// Stops and starts the service when it runs, so that a changed key or service type takes effect.
  void restartServiceIfNeeded();
  /// Creates one browser per storage; called when the storages are set.
  void initMetaStoragesRelatedData();
  /// Drops the browsers and the peers found through them.
  void invalidateMetaStoragesRelatedData();
  /// Starts the service that waited for the synced folder once the folder is there.
  void iCloudAccountStateDidChangeNotification();
  /// A storage's key or service type changed: the service restarts with it.
  void metaDataStorageDidChange(const std::shared_ptr<QVHandoffMetaStorage>& storage) override;
  /// 3: a desktop installation.
  static int64_t deviceType();
  /// The host's display name, published to peers. Set by the host before the service starts.
  static std::string productName();
  static void setProductName(std::string productName);
  /// "_qvhandoff<service type>._tcp", or none for an empty service type.
  static std::optional<std::string> serviceTypeFromStorage(const QVHandoffMetaStorage& storage);
  /// The error a DNS-SD failure is reported with.
  static QVError errorFromNetServiceErrorDictionary(const QVUserInfo& errorDictionary);

  // ---- Publishing ----
  /// The server that answers peers, created on first use.
  std::shared_ptr<QVHandoffHTTPServer> localServer();
  /// What the local server's connections reach this manager through; a server of the host's own may take
  /// it too. Made on first use.
  std::shared_ptr<QVHandoffServerContext> serverContext();
  /// The port the local server listens on at every start; 0 (the default) lets the system choose one.
  void setServerPort(uint16_t port);
  uint16_t serverPort() const { return serverPort_; }
  /// Starts the local server and publishes it; part of startHandoffService.
  void startPublishing();
  /// Withdraws the publication and stops the server without waiting for its connections.
  void stopPublishing();
  /// After the host changed records of the list in place.
  void updateLocalDocumentsInfo();
  /// Republishes the TXT record (whether documents are open), so that peers fetch the list again.
  void updateLocalServerTXTData();
  /// Arrives on a DNS-SD thread.
  void handoffHTTPServerDidPublish(QVHandoffHTTPServer& server) override;

  // ---- Discovery and the registry of remote servers (forwarded to the peer registry) ----
  /// Starts every storage's browser; part of startHandoffService.
  void startBrowsing();
  /// Stops the browsers and forgets what they found.
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

  /// Registers a found peer under the key it shares with this installation.
  void addRemoteServerInfoForService(const std::shared_ptr<QVNetService>& service, const QVData& AES256Key);
  /// Forgets a peer and cancels what is in flight with it.
  void removeRemoteServerInfoForService(const std::shared_ptr<QVNetService>& service);
  /// Refreshes a peer's record after its address or TXT record changed.
  void updateServerInfoForService(const std::shared_ptr<QVNetService>& service);
  /// Fetches a peer's list of open documents.
  void performTabsListHTTPRequestForServerInfo(const std::shared_ptr<QVHandoffServerInfo>& serverInfo);
  /// Cancels every request to a peer.
  void stopAllOperationsForServerWithInfo(const std::shared_ptr<QVHandoffServerInfo>& serverInfo) override;
  /// Posts "QVHandoffManagerDidUpdateServersInfoNotification" on the main thread.
  void postServersInfoUpdateNotification() override;
  /// After any failed request to a peer: a refused connection forgets its address (a new resolve follows);
  /// otherwise the tabs list is fetched again while attempts remain.
  void handleResponseError(const QVError& error,
                           const std::shared_ptr<QVHandoffServerInfo>& fromServerWithInfo);

  /// The peer record of a service, or null.
  std::shared_ptr<QVHandoffServerInfo> remoteServerInfoForService(const QVNetService& service) const;
  /// Its index in serversInfo, or UINT64_MAX.
  uint64_t indexOfRemoteServerInfoForService(const QVNetService& service) const;
  /// The peer with that device name, or null.
  std::shared_ptr<QVHandoffServerInfo> serverInfoForDeviceName(const std::string& deviceName) const;
  std::shared_ptr<QVHandoffServerInfo>
  /// The peer a document record belongs to, or null.
  serverInfoForDocumentInfo(const QVHandoffDocumentInfo& documentInfo) const;
  /// Binds a host-held copy to the live record of its device.
  std::shared_ptr<QVHandoffServerInfo>
  identifyServerInfoForDocumentInfo(QVHandoffDocumentInfo& documentInfo) const;
  std::shared_ptr<QVHandoffDocumentInfo>
  /// The live record for a copy of a remote document record, or null when its peer no longer lists it.
  updatedRemoteDocumentInfo(const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo) const;

  /// The up-to-date live records (for the framework); hosts use the copies of remoteServersInfoPassingTest.
  ServerInfoList remoteServersInfo() const;
  /// Copies of the up-to-date peers, each with the documents `test` keeps; none when no peer is up to date.
  /// Main thread.
  std::optional<ServerInfoList> remoteServersInfoPassingTest(const DocumentInfoTest& test) const;
  /// Every known peer, up to date or not (main thread).
  const ServerInfoList& serversInfo() const;

  /// The HTTP client every request of this manager goes through.
  QVHTTPSessionManager& HTTPSessionManager() const;
  /// "Accept-Encoding: x-quorvel-aes256" always; with a type also "Content-Type" and "Content-Encoding".
  static void setContentType(const std::optional<std::string>& contentType, QVURLRequest& forRequest);
  /// "http://host:port"; no port part for 0 or 80; one trailing dot of the host dropped.
  static std::string HTTPAddressForHost(const std::string& host, int64_t port);

  // ---- Transfers ----
  /// Downloads a peer's document into the handoff folder, tagged with its origin. The handlers run on the
  /// main thread: progress from 0 to 1, then completion with the copy's path, or error (-999 when cancelled).
  void handoffRemoteDocumentWithInfo(const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo,
                                     ProgressHandler progressHandler, CompletionHandler completionHandler,
                                     ErrorHandler errorHandler);
  /// Sends the download request of a handoff that handoffRemoteDocumentWithInfo prepared.
  void performHandoffRemoteDocumentHTTPRequestForDocumentInfo(
      const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo);
  /// Cancels a download in flight; its error handler gets -999 and no partial file stays.
  void cancelHandoffRemoteDocumentWithInfo(const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo);
  /// Uploads an edited handed-off copy over its original at the peer. The handlers run on the main thread; a
  /// changed original is not overwritten: the upload lands beside it under a new name.
  void saveBackFileAtPath(const std::string& path,
                          const std::shared_ptr<QVHandoffDocumentInfo>& withDocumentInfo,
                          ProgressHandler progressHandler, CompletionHandler completionHandler,
                          ErrorHandler errorHandler);
  void
  performSaveBackHTTPRequestForDocumentWithInfo(const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo);
  /// Cancels an upload in flight; the original at the peer stays untouched.
  void cancelSaveBackDocumentWithInfo(const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo);
  /// Tells the copy's origin that the copy was edited, so its host can warn before the original changes.
  void markAsModifiedFileAtPath(const std::string& path,
                                const std::shared_ptr<QVHandoffDocumentInfo>& withDocumentInfo);
  /// Sends the request of markAsModifiedFileAtPath.
  void performMarkAsModifiedFileHTTPRequestForDocumentInfo(
      const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo);
  /// Asks the peer holding a modified copy of a local document to save it back now; false when none does.
  bool forceRemoteSaveBackForLocalFileAtPath(const std::string& path);
  /// Sends the request of forceRemoteSaveBackForLocalFileAtPath; false when it cannot be built.
  bool performForceRemoteSaveBackFileHTTPRequestForDocumentInfo(
      const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo);
  /// Records with a download / an upload in flight (copies of the sets); each record's running transfer is
  /// a QVHandoffDownload or QVHandoffUpload, reached through fileTransfer().
  DocumentInfoSet handoffDocumentsInfo() const;
  DocumentInfoSet saveBackDocumentsInfo() const;

  // Tagging of handed-off copies.
  /// Tags a file with a document record's origin (extended attributes and the copy index).
  static void addDocumentInfo(const QVHandoffDocumentInfo& documentInfo, const std::string& toFileAtPath);
  /// The origin a handed-off copy is tagged with, or null for an untagged file.
  static std::shared_ptr<QVHandoffDocumentInfo> documentInfoForFileAtPath(const std::string& path);
  /// Removes a file's handoff tags.
  static void removeDocumentInfoFromFileAtPath(const std::string& path);
  /// Writes one extended attribute of the library's namespace; false on failure.
  static bool setString(const std::string& string, const std::string& xattrName,
                        const std::string& forFileAtPath);
  /// Reads one extended attribute of the library's namespace.
  static std::optional<std::string> stringForXattrName(const std::string& xattrName,
                                                       const std::string& fromFileAtPath);
  static std::shared_ptr<QVHandoffDocumentInfo>
  /// The record of `fromSet` for the same document, or null.
  documentInfo(const QVHandoffDocumentInfo& documentInfo,
               const std::unordered_set<std::shared_ptr<QVHandoffDocumentInfo>>& fromSet);
  /// The MIME type a document is announced with, or none.
  static std::optional<std::string> handoffContentTypeForFileAtPath(const std::string& path);

  // Modification dates.
  /// Records the modification date a save back must find, beside the file's own.
  static void setOverriddenFileModificationDate(QVDate date, const std::string& forFileAtPath);
  /// The same with the current date.
  static void setOverriddenFileModificationDateToCurrentDateForFileAtPath(const std::string& path);
  /// The recorded date, or none.
  static std::optional<QVDate> overriddenFileModificationDateForFileAtPath(const std::string& path);
  /// The later of the file's date and the recorded one.
  static std::optional<QVDate> latestFileModificationDateForFileAtPath(const std::string& path);
  /// Whether two dates are within a second of each other (two absent dates are similar).
  static bool date(const std::optional<QVDate>& date, const std::optional<QVDate>& isSimilarToDate);

  // Paths.
  /// The folder handed-off copies land in ($XDG_CACHE_HOME/com.quorvel.handoff).
  std::string handoffDirectoryPath();
  /// handoffDirectoryPath of the default manager.
  static std::string defaultHandoffDirectoryPath() { return defaultManager()->handoffDirectoryPath(); }
  /// A free path for a new copy of a remote document, below its device's folder.
  static std::string uniqueEmptyHandoffFilePathForDocumentWithInfo(const QVHandoffDocumentInfo& documentInfo);
  /// Where a copy of a remote document goes, free or not.
  static std::string handoffFilePathForDocumentWithInfo(const QVHandoffDocumentInfo& documentInfo);
  /// Whether a path lies in the handoff folder and may be written.
  static bool handoffReadyFilePath(const std::string& path);

  // The replaceable file operations and what the server side calls through them.
  /// How a local document is copied for a peer (default QVHandoffManagerDefaultCopyFileBlock). Runs on a
  /// connection's thread.
  QVHandoffCopyFileBlock copyFileBlock() const;
  void setCopyFileBlock(QVHandoffCopyFileBlock block);
  /// How an uploaded copy replaces its original (default QVHandoffManagerDefaultMoveFileBlock). Runs on a
  /// connection's thread.
  QVHandoffMoveFileBlock moveFileBlock() const;
  void setMoveFileBlock(QVHandoffMoveFileBlock block);
  /// How a local document's size and dates are read. Runs on a connection's thread.
  QVHandoffFileAttributesBlock fileAttributesBlock() const;
  void setFileAttributesBlock(QVHandoffFileAttributesBlock block);
  /// A local document's attributes through fileAttributesBlock.
  std::optional<QVFileAttributes> attributesOfHandoffDocumentAtPath(const std::string& path,
                                                                    QVError* error) const;
  /// Copies a local document through copyFileBlock after posting
  /// "QVHandoffManagerWillHandoffLocalDocumentNotification" on the calling thread.
  bool copyHandoffDocumentAtPath(const std::string& path, const std::string& toPath, QVError* error);
  /// Moves an uploaded copy over its original through moveFileBlock.
  bool moveSavedBackDocumentAtPath(const std::string& path, const std::string& toOriginalPath,
                                   QVError* error);

  /// Use defaultManager() or make(), which give it its peer registry; public for std::make_shared.
  explicit QVHandoffManager(QVHandoffPlatform platform);

  /// Documents open locally. The host replaces the list whole on the main thread; connection threads
  /// read it as an immutable snapshot.
  using DocumentInfoList = std::vector<std::shared_ptr<QVHandoffDocumentInfo>>;
  /// The documents open locally, as published to peers; any thread.
  std::shared_ptr<const DocumentInfoList> localDocumentsInfo() const;
  /// Replaces the list of open documents and republishes. Main thread.
  void setLocalDocumentsInfo(std::shared_ptr<const DocumentInfoList> documentsInfo);
  /// The index of the document in front.
  uint64_t currentLocalDocumentIndex() const { return currentLocalDocumentIndex_; }
  /// Makes a document the one in front (peers see it as active). Main thread.
  void setCurrentLocalDocumentIndex(uint64_t index);
  /// The open document at a path, or null.
  std::shared_ptr<QVHandoffDocumentInfo> localDocumentInfoForFilePath(const std::string& path) const;

  /// Posts "QVHandoffManagerDidFailSaveBackRemoteDocumentNotification" for a local document.
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
