// SPDX-License-Identifier: MIT
#pragma once
// One peer found on the network: its service, address, key, what its TXT record said, the documents of
// its last tabs list and the state of fetching that list. The host only ever gets copies, which carry no
// key and cannot talk to the peer.

#include "Foundation/QVTypes.h"
#include "QVHandoff/QVHandoffExport.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class QVHandoffDocumentInfo;
class QVNetService;
class QVURLSessionDataTask;

/// Stands for an absent index.
inline constexpr uint64_t QVNotFound = 9223372036854775807ULL;

class QVHANDOFF_EXPORT QVHandoffServerInfo : public std::enable_shared_from_this<QVHandoffServerInfo> {
public:
  /// An empty record; the registry makes one per peer it finds.
  static std::shared_ptr<QVHandoffServerInfo> make() { return std::make_shared<QVHandoffServerInfo>(); }

  /// Documents (as fresh copies), index, product name, device type, address and the same service; nothing
  /// of the key, the request or the flags.
  std::shared_ptr<QVHandoffServerInfo> copy() const;
  /// For logs: device, HTTP address, service and the state of the tabs-list fetch on one line; never the key.
  std::string description() const;

  /// The name the peer published itself under; empty without a service.
  std::string deviceName() const;

  /// `object` as a message body encrypted with the peer's key; none without a key (as in the host's copies)
  /// or when it cannot be encoded.
  std::optional<QVData> AES256EncryptedDataWithJSONObject(const nlohmann::json& object) const;
  /// The JSON object a body encrypted with the peer's key holds; none without a key, or when the body does
  /// not decrypt or parse.
  std::optional<nlohmann::json> JSONObjectWithAES256EncryptedData(const QVData& data) const;

  /// The documents of the peer's last tabs list, in its order; empty while it has none open.
  const std::vector<std::shared_ptr<QVHandoffDocumentInfo>>& documentsInfo() const { return documentsInfo_; }
  void setDocumentsInfo(std::vector<std::shared_ptr<QVHandoffDocumentInfo>> value) {
    documentsInfo_ = std::move(value);
  }
  /// The peer's active document in documentsInfo(); QVNotFound when it has none or a filter dropped it.
  uint64_t currentDocumentIndex() const { return currentDocumentIndex_; }
  void setCurrentDocumentIndex(uint64_t value) { currentDocumentIndex_ = value; }
  /// From the peer's TXT record; the first values it announced stay.
  int64_t deviceType() const { return deviceType_; }
  void setDeviceType(int64_t value) { deviceType_ = value; }
  const std::string& productName() const { return productName_; }
  void setProductName(std::string value) { productName_ = std::move(value); }
  /// Set on the host's copies that a document test has thinned out.
  bool filtered() const { return filtered_; }
  void setFiltered(bool value) { filtered_ = value; }
  /// The peer's DNS-SD service, monitored for TXT changes; its name is the device name.
  const std::shared_ptr<QVNetService>& service() const { return service_; }
  void setService(std::shared_ptr<QVNetService> value) { service_ = std::move(value); }
  /// The base URL of the peer's server once resolved; empty before, and again when the peer could not be
  /// reached, which forces a new resolve.
  const std::string& HTTPAddress() const { return HTTPAddress_; }
  void setHTTPAddress(std::string value) { HTTPAddress_ = std::move(value); }
  /// A resolve of the service runs; no second one starts meanwhile.
  bool resolveInProgress() const { return resolveInProgress_; }
  void setResolveInProgress(bool value) { resolveInProgress_ = value; }
  /// The key of the meta storage whose browser found the peer; empty in the host's copies.
  const QVData& AES256Key() const { return AES256Key_; }
  void setAES256Key(QVData value) { AES256Key_ = std::move(value); }
  /// The tabs-list request in flight, if any; a new request cancels it.
  const std::shared_ptr<QVURLSessionDataTask>& tabsListRequestHTTPOperation() const {
    return tabsListRequestHTTPOperation_;
  }
  void setTabsListRequestHTTPOperation(std::shared_ptr<QVURLSessionDataTask> value) {
    tabsListRequestHTTPOperation_ = std::move(value);
  }
  /// Tabs-list requests since the peer's last TXT change; past QVHandoffTabsListRequestAttemptLimit the
  /// record waits for the next change.
  uint64_t tabsListRequestAttempt() const { return tabsListRequestAttempt_; }
  void setTabsListRequestAttempt(uint64_t value) { tabsListRequestAttempt_ = value; }
  /// The peer's TXT record says it has documents open; without any no tabs list is fetched.
  bool hasOpenedDocuments() const { return hasOpenedDocuments_; }
  void setHasOpenedDocuments(bool value) { hasOpenedDocuments_ = value; }
  /// The peer's last tabs list is in and no fetch is pending; only such records reach the host.
  bool upToDate() const { return upToDate_; }
  void setUpToDate(bool value) { upToDate_ = value; }

private:
  std::vector<std::shared_ptr<QVHandoffDocumentInfo>> documentsInfo_;
  uint64_t currentDocumentIndex_ = 0;
  int64_t deviceType_ = 0;
  std::string productName_;
  bool filtered_ = false;
  std::shared_ptr<QVNetService> service_;
  std::string HTTPAddress_;
  bool resolveInProgress_ = false;
  QVData AES256Key_;
  std::shared_ptr<QVURLSessionDataTask> tabsListRequestHTTPOperation_;
  uint64_t tabsListRequestAttempt_ = 0;
  bool hasOpenedDocuments_ = false;
  bool upToDate_ = false;
};
