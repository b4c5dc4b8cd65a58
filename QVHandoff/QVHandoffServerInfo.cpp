// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffServerInfo.h"

#include "Network/DNSSD/QVNetService.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffMessageCodec.h"

#include <fmt/format.h>

namespace {

const char* yesOrNo(bool value) {
  return value ? "YES" : "NO";
}

std::string orNull(std::string text) {
  return text.empty() ? "(null)" : text;
}

} // namespace

std::shared_ptr<QVHandoffServerInfo> QVHandoffServerInfo::copy() const {
  auto copy = make();
  std::vector<std::shared_ptr<QVHandoffDocumentInfo>> documents;
  documents.reserve(documentsInfo_.size());
  for (const auto& document : documentsInfo_) {
    if (document) documents.push_back(document->copy());
  }
  copy->setDocumentsInfo(std::move(documents));
  copy->setCurrentDocumentIndex(currentDocumentIndex_);
  copy->setProductName(productName_);
  copy->setDeviceType(deviceType_);
  copy->setHTTPAddress(HTTPAddress_);
  // Shared, so that the copy's device name still finds the live record.
  copy->setService(service_);
  return copy;
}

std::string QVHandoffServerInfo::description() const {
  return fmt::format(
      "<QVHandoffServerInfo {}: deviceType = {}; deviceName = {}; HTTPAddress = {}; service = {}; "
      "resolveInProgress = {}; tabsListRequestAttempt = {}; hasOpenedDocuments = {}; upToDate = {}>",
      static_cast<const void*>(this), static_cast<unsigned long>(deviceType_), orNull(deviceName()),
      orNull(HTTPAddress_), service_ ? service_->description() : "(null)", yesOrNo(resolveInProgress_),
      tabsListRequestAttempt_, yesOrNo(hasOpenedDocuments_), yesOrNo(upToDate_));
}

std::string QVHandoffServerInfo::deviceName() const {
  return service_ ? service_->name() : std::string();
}

// A record without a key (every copy) cannot talk to the peer; the codec would encrypt with a zero key.
std::optional<QVData>
QVHandoffServerInfo::AES256EncryptedDataWithJSONObject(const nlohmann::json& object) const {
  if (AES256Key_.empty()) return std::nullopt;
  return QVHandoffMessageCodec::dataFromJSONObject(object, AES256Key_);
}

std::optional<nlohmann::json>
QVHandoffServerInfo::JSONObjectWithAES256EncryptedData(const QVData& data) const {
  if (AES256Key_.empty()) return std::nullopt;
  return QVHandoffMessageCodec::JSONObjectFromData(data, AES256Key_);
}
