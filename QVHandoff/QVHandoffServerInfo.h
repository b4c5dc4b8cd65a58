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
  static std::shared_ptr<QVHandoffServerInfo> make() { return std::make_shared<QVHandoffServerInfo>(); }

  /// Documents (as fresh copies), index, product name, device type, address and the same service; nothing
  /// of the key, the request or the flags.
  std::shared_ptr<QVHandoffServerInfo> copy() const;
  std::string description() const;

  /// The name the peer published itself under; empty without a service.
  std::string deviceName() const;

  std::optional<QVData> AES256EncryptedDataWithJSONObject(const nlohmann::json& object) const;
  std::optional<nlohmann::json> JSONObjectWithAES256EncryptedData(const QVData& data) const;

  const std::vector<std::shared_ptr<QVHandoffDocumentInfo>>& documentsInfo() const { return documentsInfo_; }
  void setDocumentsInfo(std::vector<std::shared_ptr<QVHandoffDocumentInfo>> value) {
    documentsInfo_ = std::move(value);
  }
  uint64_t currentDocumentIndex() const { return currentDocumentIndex_; }
  void setCurrentDocumentIndex(uint64_t value) { currentDocumentIndex_ = value; }
  int64_t deviceType() const { return deviceType_; }
  void setDeviceType(int64_t value) { deviceType_ = value; }
  const std::string& productName() const { return productName_; }
  void setProductName(std::string value) { productName_ = std::move(value); }
  bool filtered() const { return filtered_; }
  void setFiltered(bool value) { filtered_ = value; }
  const std::shared_ptr<QVNetService>& service() const { return service_; }
  void setService(std::shared_ptr<QVNetService> value) { service_ = std::move(value); }
  const std::string& HTTPAddress() const { return HTTPAddress_; }
  void setHTTPAddress(std::string value) { HTTPAddress_ = std::move(value); }
  bool resolveInProgress() const { return resolveInProgress_; }
  void setResolveInProgress(bool value) { resolveInProgress_ = value; }
  const QVData& AES256Key() const { return AES256Key_; }
  void setAES256Key(QVData value) { AES256Key_ = std::move(value); }
  const std::shared_ptr<QVURLSessionDataTask>& tabsListRequestHTTPOperation() const {
    return tabsListRequestHTTPOperation_;
  }
  void setTabsListRequestHTTPOperation(std::shared_ptr<QVURLSessionDataTask> value) {
    tabsListRequestHTTPOperation_ = std::move(value);
  }
  uint64_t tabsListRequestAttempt() const { return tabsListRequestAttempt_; }
  void setTabsListRequestAttempt(uint64_t value) { tabsListRequestAttempt_ = value; }
  bool hasOpenedDocuments() const { return hasOpenedDocuments_; }
  void setHasOpenedDocuments(bool value) { hasOpenedDocuments_ = value; }
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
