// SPDX-License-Identifier: MIT
#pragma once
// The peers of one manager: a browser per meta storage, a live server record per found service, their
// resolves and TXT records, the tabs-list fetches with their attempts, and the up-to-date lists the host
// reads. Confined to the main thread. The manager forwards its discovery operations here.

#include "Foundation/QVTypes.h"
#include "Network/DNSSD/QVNetServiceBrowserDelegate.h"
#include "Network/DNSSD/QVNetServiceDelegate.h"
#include "QVHandoff/QVHandoffExport.h"
#include "QVHandoff/QVHandoffMetaStorage.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class QVDNSSDEngine;
class QVHandoffDocumentInfo;
class QVHandoffServerInfo;
class QVHTTPSessionManager;
class QVNetService;
class QVNetServiceBrowser;

class QVHANDOFF_EXPORT QVHandoffPeerRegistry : public std::enable_shared_from_this<QVHandoffPeerRegistry>,
                                               public QVNetServiceBrowserDelegate,
                                               public QVNetServiceDelegate {
public:
  /// What the registry asks of the manager that owns it.
  class Owner {
  public:
    virtual ~Owner() = default;
    /// Our own service comes back from the browsers too; it is never a peer.
    virtual std::string ownServiceName() = 0;
    /// A peer left: its downloads and uploads fail.
    virtual void
    stopAllOperationsForServerWithInfo(const std::shared_ptr<QVHandoffServerInfo>& serverInfo) = 0;
    /// Every change the host may see.
    virtual void postServersInfoUpdateNotification() = 0;
    /// The peer's active document changed; on the main thread.
    virtual void
    postActiveRemoteDocumentChange(const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo) = 0;
  };

  using ServerInfoList = std::vector<std::shared_ptr<QVHandoffServerInfo>>;
  using MetaStorageList = std::vector<std::shared_ptr<QVHandoffMetaStorage>>;
  using DocumentInfoTest = std::function<bool(const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo,
                                              uint64_t index, bool* stop)>;

  /// Browsers search through `engine`; tabs lists are fetched through `session`.
  QVHandoffPeerRegistry(std::shared_ptr<QVDNSSDEngine> engine, std::shared_ptr<QVHTTPSessionManager> session,
                        std::weak_ptr<Owner> owner);
  ~QVHandoffPeerRegistry() override;
  QVHandoffPeerRegistry(const QVHandoffPeerRegistry&) = delete;
  QVHandoffPeerRegistry& operator=(const QVHandoffPeerRegistry&) = delete;

  /// A browser per storage, same index, searching only from startBrowsing() on. An empty list stops and
  /// drops the browsers; known records stay.
  void setMetaStorages(MetaStorageList metaStorages);
  /// One browser per meta storage, in the storages' order.
  const std::vector<std::shared_ptr<QVNetServiceBrowser>>& serviceBrowsers() const {
    return serviceBrowsers_;
  }
  /// The HTTP client the tabs lists are fetched through.
  QVHTTPSessionManager& HTTPSessionManager() const { return *session_; }

  /// Restarts every browser on its storage's service type in "local"; a storage without a type has none.
  void startBrowsing();
  /// Stops every browser; the records found so far stay.
  void stopBrowsing();
  /// Forgets every peer, failing its transfers.
  void removeAllServersInfo();

  /// DNS-SD events, on the main queue. A found peer (never our own service) gets a record with the key of
  /// the storage whose browser found it; a removed or unresolvable one loses its record; a resolve or a TXT
  /// change moves its record on, a TXT change with fresh tabs-list attempts.
  void netServiceBrowserDidFindService(const std::shared_ptr<QVNetServiceBrowser>& browser,
                                       const std::shared_ptr<QVNetService>& service,
                                       bool moreComing) override;
  void netServiceBrowserDidRemoveService(const std::shared_ptr<QVNetServiceBrowser>& browser,
                                         const std::shared_ptr<QVNetService>& service,
                                         bool moreComing) override;
  void netServiceBrowserDidNotSearch(const std::shared_ptr<QVNetServiceBrowser>& browser,
                                     const QVUserInfo& errorDict) override;
  void netServiceDidResolveAddress(const std::shared_ptr<QVNetService>& sender) override;
  void netServiceDidNotResolve(const std::shared_ptr<QVNetService>& sender,
                               const QVUserInfo& errorDict) override;
  void netServiceDidUpdateTXTRecordData(const std::shared_ptr<QVNetService>& sender,
                                        const QVData& data) override;

  /// A record for a found service, holding `AES256Key`, with its TXT record monitored; a peer known by
  /// name already keeps its first record and key.
  void addRemoteServerInfoForService(const std::shared_ptr<QVNetService>& service, const QVData& AES256Key);
  /// Silences the service, cancels its tabs-list request, fails the peer's transfers and drops its record.
  void removeRemoteServerInfoForService(const std::shared_ptr<QVNetService>& service);
  /// Moves a record on from the service's TXT record: resolves a peer without an address, fetches the tabs
  /// list of one with documents open (up to the attempt limit), and empties one without; main thread.
  void updateServerInfoForService(const std::shared_ptr<QVNetService>& service);
  /// Fetches the peer's tabs list, cancelling the request in flight; the record is hidden from the host
  /// until the answer is in.
  void performTabsListHTTPRequestForServerInfo(const std::shared_ptr<QVHandoffServerInfo>& serverInfo);
  /// After a failed tabs-list request: a peer that refused the connection loses its address, so that it is
  /// resolved again; then the record moves on as after a TXT change.
  void handleResponseError(const QVError& error, const std::shared_ptr<QVHandoffServerInfo>& serverInfo);

  /// A peer's answer to the tabs-list request read into the record's documents: the new active document when
  /// the host must hear of it, else null; none (logged) when it is not an encrypted JSON list.
  static std::optional<std::shared_ptr<QVHandoffDocumentInfo>>
  takeInTabsListData(const QVData& body, const std::shared_ptr<QVHandoffServerInfo>& serverInfo);

  /// The record of the peer published under the service's name; null when none.
  std::shared_ptr<QVHandoffServerInfo> remoteServerInfoForService(const QVNetService& service) const;
  /// Its index in serversInfo(), by name alone; QVNotFound when none.
  uint64_t indexOfRemoteServerInfoForService(const QVNetService& service) const;
  /// The record of the peer published under `deviceName`; null when none.
  std::shared_ptr<QVHandoffServerInfo> serverInfoForDeviceName(const std::string& deviceName) const;
  /// The same document's record in its peer's last tabs list, else `documentInfo` itself (null stays null).
  std::shared_ptr<QVHandoffDocumentInfo>
  updatedRemoteDocumentInfo(const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo) const;

  /// The up-to-date records, in the order found: the live ones, not copies.
  ServerInfoList remoteServersInfo() const;
  /// Copies of the up-to-date records, each keeping the documents `test` passes until it sets `*stop`;
  /// none without a test.
  std::optional<ServerInfoList> remoteServersInfoPassingTest(const DocumentInfoTest& test) const;
  /// Every record, up to date or not.
  const ServerInfoList& serversInfo() const { return serversInfo_; }

private:
  void postServersInfoUpdateNotification() const;

  const std::shared_ptr<QVDNSSDEngine> engine_;
  const std::shared_ptr<QVHTTPSessionManager> session_;
  const std::weak_ptr<Owner> owner_;
  MetaStorageList metaStorages_;
  std::vector<std::shared_ptr<QVNetServiceBrowser>> serviceBrowsers_;
  ServerInfoList serversInfo_;
};
