// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffPeerRegistry.h"

#include "Foundation/QVDateFormatting.h"
#include "Foundation/QVLog.h"
#include "Foundation/QVMainQueue.h"
#include "Network/DNSSD/QVNetService.h"
#include "Network/DNSSD/QVNetServiceBrowser.h"
#include "Network/HTTPClient/QVHTTPSessionManager.h"
#include "Network/HTTPClient/QVURLRequest.h"
#include "Network/HTTPClient/QVURLSessionDataTask.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffManager.h"
#include "QVHandoff/QVHandoffMessageCodec.h"
#include "QVHandoff/QVHandoffServerInfo.h"

#include <algorithm>
#include <cfloat>
#include <chrono>
#include <iterator>

QV_LOG_SOURCE_OF("QVHandoff/QVHandoffManager", "QVHandoffManager")

namespace {

std::string text(const QVData& bytes) {
  return std::string(bytes.begin(), bytes.end());
}

// The truth of a number in text: non-zero is true; zero, empty or unreadable text is false.
bool truthValue(const std::string& text) {
  return QVParseDoubleNumber(text).value_or(0) != 0;
}

std::string stringEntry(const nlohmann::json& entry, const char* key) {
  const auto found = entry.find(key);
  return found != entry.end() && found->is_string() ? found->get<std::string>() : std::string();
}

double numberEntry(const nlohmann::json& entry, const char* key) {
  const auto found = entry.find(key);
  if (found == entry.end()) return 0;
  if (found->is_number()) return found->get<double>();
  if (found->is_boolean()) return found->get<bool>() ? 1 : 0;
  if (found->is_string()) return QVParseDoubleNumber(found->get<std::string>()).value_or(0);
  return 0;
}

uint64_t unsignedEntry(const nlohmann::json& entry, const char* key) {
  const auto found = entry.find(key);
  if (found != entry.end() && found->is_number_unsigned()) return found->get<uint64_t>();
  const double value = numberEntry(entry, key);
  return value > 0 && value < 18446744073709551616.0 ? static_cast<uint64_t>(value) : 0;
}

// A peer's coordinate outside what a float holds would be undefined to convert.
float singlePrecision(double value) {
  return static_cast<float>(std::clamp(value, double(-FLT_MAX), double(FLT_MAX)));
}

// One entry of a peer's tabs list; whatever is missing or of another type stays empty or zero.
std::shared_ptr<QVHandoffDocumentInfo>
documentInfoFromTabsListEntry(const nlohmann::json& entry,
                              const std::shared_ptr<QVHandoffServerInfo>& serverInfo) {
  auto documentInfo = QVHandoffDocumentInfo::make();
  documentInfo->setFilePath(stringEntry(entry, QVHandoffTabsListFilePathKey));
  documentInfo->setContentType(stringEntry(entry, QVHandoffTabsListFileContentTypeKey));
  documentInfo->setParentServerInfo(serverInfo);
  documentInfo->setFileSize(unsignedEntry(entry, QVHandoffTabsListFileSizeKey));
  documentInfo->setFileModificationDate(QVHandoffMessageCodec::dateFormatter().dateFromString(
      stringEntry(entry, QVHandoffTabsListFileModificationDateKey)));
  documentInfo->setICloudPath(stringEntry(entry, QVHandoffTabsListICloudPathKey));
  documentInfo->setDropboxPath(stringEntry(entry, QVHandoffTabsListDropboxPathKey));
  documentInfo->setPageNumber(unsignedEntry(entry, QVHandoffTabsListPageNumberKey));
  // Single precision on purpose: that is what the position is worth on either side.
  documentInfo->setPdfPoint({singlePrecision(numberEntry(entry, QVHandoffTabsListPDFPointXKey)),
                             singlePrecision(numberEntry(entry, QVHandoffTabsListPDFPointYKey))});
  return documentInfo;
}

bool isActiveEntry(const nlohmann::json& entry) {
  return numberEntry(entry, QVHandoffTabsListActiveKey) != 0;
}

// A decrypted tabs list replaces the record's documents. The new active document, when the host must hear
// of it (it differs from the one before).
std::shared_ptr<QVHandoffDocumentInfo>
takeInTabsList(const nlohmann::json& tabs, const std::shared_ptr<QVHandoffServerInfo>& serverInfo) {
  serverInfo->setUpToDate(true);
  const auto& oldDocumentsInfo = serverInfo->documentsInfo();
  const uint64_t oldIndex = serverInfo->currentDocumentIndex();
  const auto previousActive = oldIndex < oldDocumentsInfo.size() ? oldDocumentsInfo[oldIndex] : nullptr;
  std::vector<std::shared_ptr<QVHandoffDocumentInfo>> documentsInfo;
  std::shared_ptr<QVHandoffDocumentInfo> active;
  for (const auto& entry : tabs) {
    auto documentInfo = documentInfoFromTabsListEntry(entry, serverInfo);
    if (isActiveEntry(entry)) {
      // The first equal entry gives the index; a later active entry wins over an earlier one.
      const auto first = std::find(tabs.begin(), tabs.end(), entry);
      serverInfo->setCurrentDocumentIndex(static_cast<uint64_t>(std::distance(tabs.begin(), first)));
      active = documentInfo;
    }
    documentsInfo.push_back(std::move(documentInfo));
  }
  const bool empty = documentsInfo.empty();
  serverInfo->setDocumentsInfo(std::move(documentsInfo));
  if (!active || empty) {
    serverInfo->setCurrentDocumentIndex(QVNotFound);
    return nullptr;
  }
  if (previousActive && active->filePath() == previousActive->filePath()) return nullptr;
  return active;
}

} // namespace

QVHandoffPeerRegistry::QVHandoffPeerRegistry(std::shared_ptr<QVDNSSDEngine> engine,
                                             std::shared_ptr<QVHTTPSessionManager> session,
                                             std::weak_ptr<Owner> owner)
    : engine_(std::move(engine)), session_(std::move(session)), owner_(std::move(owner)) {}

QVHandoffPeerRegistry::~QVHandoffPeerRegistry() {
  for (const auto& browser : serviceBrowsers_) {
    browser->setDelegate({});
    browser->stop();
  }
  for (const auto& serverInfo : serversInfo_) {
    if (const auto& service = serverInfo->service()) service->setDelegate({});
    if (const auto& task = serverInfo->tabsListRequestHTTPOperation()) task->cancel();
  }
}

void QVHandoffPeerRegistry::setMetaStorages(MetaStorageList metaStorages) {
  QV_ASSERT_MAIN_THREAD();
  for (const auto& browser : serviceBrowsers_) {
    browser->setDelegate({});
    browser->stop();
  }
  serviceBrowsers_.clear();
  metaStorages_ = std::move(metaStorages);
  // Made now, searching only once the own service is published.
  for (size_t index = 0; index < metaStorages_.size(); ++index) {
    auto browser = std::make_shared<QVNetServiceBrowser>(engine_);
    browser->setDelegate(weak_from_this());
    serviceBrowsers_.push_back(std::move(browser));
  }
}

// MARK: Browsing

void QVHandoffPeerRegistry::startBrowsing() {
  stopBrowsing();
  // Every storage's type is browsed, though only the master's is published.
  for (size_t index = 0; index < metaStorages_.size() && index < serviceBrowsers_.size(); ++index) {
    if (const auto type = QVHandoffManager::serviceTypeFromStorage(*metaStorages_[index]))
      serviceBrowsers_[index]->searchForServicesOfType(*type, QVHandoffServiceDomain);
  }
}

void QVHandoffPeerRegistry::stopBrowsing() {
  for (const auto& browser : serviceBrowsers_)
    browser->stop();
}

void QVHandoffPeerRegistry::removeAllServersInfo() {
  QV_ASSERT_MAIN_THREAD();
  const ServerInfoList snapshot = serversInfo_;
  for (const auto& serverInfo : snapshot) {
    if (serverInfo->service()) removeRemoteServerInfoForService(serverInfo->service());
  }
}

void QVHandoffPeerRegistry::netServiceBrowserDidFindService(
    const std::shared_ptr<QVNetServiceBrowser>& browser, const std::shared_ptr<QVNetService>& service, bool) {
  QV_ASSERT_MAIN_THREAD();
  const auto owner = owner_.lock();
  if (!service || !owner || service->name() == owner->ownServiceName()) return;
  const auto position = std::find(serviceBrowsers_.begin(), serviceBrowsers_.end(), browser);
  const auto index = static_cast<size_t>(position - serviceBrowsers_.begin());
  if (position == serviceBrowsers_.end() || index >= metaStorages_.size()) {
    QV_LOG_ERROR("Couldn't find index of net service browser");
    return;
  }
  addRemoteServerInfoForService(service, metaStorages_[index]->AES256Key());
}

void QVHandoffPeerRegistry::netServiceBrowserDidRemoveService(const std::shared_ptr<QVNetServiceBrowser>&,
                                                              const std::shared_ptr<QVNetService>& service,
                                                              bool) {
  QV_ASSERT_MAIN_THREAD();
  if (service) removeRemoteServerInfoForService(service);
}

void QVHandoffPeerRegistry::netServiceBrowserDidNotSearch(const std::shared_ptr<QVNetServiceBrowser>&,
                                                          const QVUserInfo& errorDict) {
  QV_LOG_ERROR("Service browser search error {}",
               QVHandoffManager::errorFromNetServiceErrorDictionary(errorDict).description());
}

void QVHandoffPeerRegistry::netServiceDidResolveAddress(const std::shared_ptr<QVNetService>& sender) {
  QV_ASSERT_MAIN_THREAD();
  const std::string address = QVHandoffManager::HTTPAddressForHost(sender->hostName(), sender->port());
  QV_LOG_DEBUG("Resolved address {} for service \"{}\"", address, sender->name());
  if (const auto serverInfo = remoteServerInfoForService(*sender)) {
    serverInfo->setHTTPAddress(address);
    serverInfo->setResolveInProgress(false);
  }
  // Ends the resolve only; the TXT record stays monitored.
  sender->stop();
  updateServerInfoForService(sender);
}

void QVHandoffPeerRegistry::netServiceDidNotResolve(const std::shared_ptr<QVNetService>& sender,
                                                    const QVUserInfo& errorDict) {
  QV_ASSERT_MAIN_THREAD();
  QV_LOG_ERROR("Couldn't resolve service \"{}\" due {}", sender->name(),
               QVHandoffManager::errorFromNetServiceErrorDictionary(errorDict).description());
  removeRemoteServerInfoForService(sender);
}

void QVHandoffPeerRegistry::netServiceDidUpdateTXTRecordData(const std::shared_ptr<QVNetService>& sender,
                                                             const QVData&) {
  QV_ASSERT_MAIN_THREAD();
  // The only reset of the attempts: every TXT change of the peer earns it fresh ones.
  if (const auto serverInfo = remoteServerInfoForService(*sender)) serverInfo->setTabsListRequestAttempt(0);
  updateServerInfoForService(sender);
}

// MARK: Registry

void QVHandoffPeerRegistry::addRemoteServerInfoForService(const std::shared_ptr<QVNetService>& service,
                                                          const QVData& AES256Key) {
  QV_ASSERT_MAIN_THREAD();
  // The same peer through a second storage's browser: the first record and its key stay.
  if (indexOfRemoteServerInfoForService(*service) < serversInfo_.size()) return;
  service->setDelegate(weak_from_this());
  service->startMonitoring();
  auto serverInfo = QVHandoffServerInfo::make();
  serverInfo->setAES256Key(AES256Key);
  serverInfo->setService(service);
  serversInfo_.push_back(std::move(serverInfo));
  QV_LOG_DEBUG("Added service \"{}\"", service->name());
  // The host hears of the record only once it is up to date.
  updateServerInfoForService(service);
}

void QVHandoffPeerRegistry::removeRemoteServerInfoForService(const std::shared_ptr<QVNetService>& service) {
  QV_ASSERT_MAIN_THREAD();
  const auto silence = [](QVNetService& netService) {
    netService.setDelegate({});
    netService.stopMonitoring();
    netService.stop();
  };
  silence(*service);
  const uint64_t index = indexOfRemoteServerInfoForService(*service);
  if (index >= serversInfo_.size()) return;
  const auto serverInfo = serversInfo_[index];
  // A second browser reports its own object for the same name: the record's must fall silent too.
  if (serverInfo->service() && serverInfo->service() != service) silence(*serverInfo->service());
  if (const auto& task = serverInfo->tabsListRequestHTTPOperation()) task->cancel();
  if (const auto owner = owner_.lock()) owner->stopAllOperationsForServerWithInfo(serverInfo);
  serversInfo_.erase(serversInfo_.begin() + static_cast<std::ptrdiff_t>(index));
  QV_LOG_DEBUG("Removed service \"{}\"", service->name());
  postServersInfoUpdateNotification();
}

void QVHandoffPeerRegistry::updateServerInfoForService(const std::shared_ptr<QVNetService>& service) {
  QV_ASSERT_MAIN_THREAD();
  const auto serverInfo = remoteServerInfoForService(*service);
  if (!serverInfo) return;
  const auto TXTRecord = QVNetService::dictionaryFromTXTRecordData(service->TXTRecordData());
  if (const auto found = TXTRecord.find(QVHandoffServerHasOpenedDocumentsKey); found != TXTRecord.end())
    serverInfo->setHasOpenedDocuments(truthValue(text(found->second)));
  if (serverInfo->deviceType() == 0) {
    if (const auto found = TXTRecord.find(QVHandoffServerDeviceTypeKey); found != TXTRecord.end())
      serverInfo->setDeviceType(QVParseSignedNumber(text(found->second)).value_or(0));
  }
  if (serverInfo->productName().empty()) {
    if (const auto found = TXTRecord.find(QVHandoffServerProductNameKey); found != TXTRecord.end())
      serverInfo->setProductName(text(found->second));
  }

  if (serverInfo->HTTPAddress().empty()) {
    if (serverInfo->resolveInProgress()) return;
    QV_LOG_DEBUG("Start resolving service \"{}\"", service->name());
    serverInfo->setResolveInProgress(true);
    service->resolveWithTimeout(std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::duration<double>(QVHandoffServiceResolveTimeInterval)));
  } else if (serverInfo->hasOpenedDocuments()) {
    const uint64_t attempt = serverInfo->tabsListRequestAttempt() + 1;
    serverInfo->setTabsListRequestAttempt(attempt);
    // Past the limit the record waits, as it is, for the peer's next TXT change.
    if (attempt <= QVHandoffTabsListRequestAttemptLimit) performTabsListHTTPRequestForServerInfo(serverInfo);
  } else {
    // An answer still on its way would bring back documents the peer has closed since.
    if (const auto& task = serverInfo->tabsListRequestHTTPOperation()) task->cancel();
    serverInfo->setTabsListRequestHTTPOperation(nullptr);
    serverInfo->setCurrentDocumentIndex(QVNotFound);
    serverInfo->setDocumentsInfo({});
    serverInfo->setUpToDate(true);
    postServersInfoUpdateNotification();
  }
}

void QVHandoffPeerRegistry::performTabsListHTTPRequestForServerInfo(
    const std::shared_ptr<QVHandoffServerInfo>& serverInfo) {
  QV_ASSERT_MAIN_THREAD();
  // At most one request per peer: the earlier one completes as cancelled and is ignored.
  if (const auto& task = serverInfo->tabsListRequestHTTPOperation()) task->cancel();
  // Hidden from the host until the answer is in; no notification for that.
  serverInfo->setUpToDate(false);
  QVURLRequest request(serverInfo->HTTPAddress() + QVHandoffTabsListRequestPath, "POST");
  QVHandoffManager::setContentType(std::nullopt, request);
  auto task = session_->dataTaskWithRequest(
      request,
      // The record holds its task: a strong hold back would keep both alive if the task never ends.
      [weak = weak_from_this(),
       weakServerInfo = std::weak_ptr(serverInfo)](std::shared_ptr<const QVHTTPURLResponse>,
                                                   std::optional<QVData> body, std::optional<QVError> error) {
        const auto registry = weak.lock();
        const auto serverInfo = weakServerInfo.lock();
        if (!registry || !serverInfo) return;
        if (error && error->domain == QVURLErrorDomain && error->code == QVURLError::Cancelled) return;
        serverInfo->setTabsListRequestHTTPOperation(nullptr);
        if (error) {
          QV_LOG_ERROR("Tabs list ({}) request ({}) error {}", serverInfo->deviceName(),
                       serverInfo->tabsListRequestAttempt(), error->description());
          registry->handleResponseError(*error, serverInfo);
          return;
        }
        // No retry when it cannot be read: the peer stays hidden until its next TXT change.
        const auto active = takeInTabsListData(body.value_or(QVData()), serverInfo);
        if (!active) return;
        const auto owner = registry->owner_.lock();
        if (*active && owner) owner->postActiveRemoteDocumentChange(*active);
        registry->postServersInfoUpdateNotification();
      });
  serverInfo->setTabsListRequestHTTPOperation(task);
  task->resume();
}

std::optional<std::shared_ptr<QVHandoffDocumentInfo>>
QVHandoffPeerRegistry::takeInTabsListData(const QVData& body,
                                          const std::shared_ptr<QVHandoffServerInfo>& serverInfo) {
  const auto tabs = serverInfo->JSONObjectWithAES256EncryptedData(body);
  if (!tabs || !tabs->is_array()) {
    QV_LOG_ERROR("Couldn't decrypt tabs list response data");
    return std::nullopt;
  }
  return takeInTabsList(*tabs, serverInfo);
}

void QVHandoffPeerRegistry::handleResponseError(const QVError& error,
                                                const std::shared_ptr<QVHandoffServerInfo>& serverInfo) {
  QV_ASSERT_MAIN_THREAD();
  // The peer moved (a new port after a restart, a new address): only a new resolve finds it.
  if (error.domain == QVURLErrorDomain && error.code == QVURLError::CannotConnectToHost) {
    QV_LOG_INFO("Resetting HTTPAddress {} for service {} to force service resolve.",
                serverInfo->HTTPAddress(), serverInfo->deviceName());
    serverInfo->setHTTPAddress({});
  }
  if (serverInfo->service()) updateServerInfoForService(serverInfo->service());
}

void QVHandoffPeerRegistry::postServersInfoUpdateNotification() const {
  if (const auto owner = owner_.lock()) owner->postServersInfoUpdateNotification();
}

// MARK: Lookups

uint64_t QVHandoffPeerRegistry::indexOfRemoteServerInfoForService(const QVNetService& service) const {
  // By name alone: the same peer found through two types or domains is one record.
  const std::string name = service.name();
  for (size_t index = 0; index < serversInfo_.size(); ++index) {
    if (serversInfo_[index]->deviceName() == name) return index;
  }
  return QVNotFound;
}

std::shared_ptr<QVHandoffServerInfo>
QVHandoffPeerRegistry::remoteServerInfoForService(const QVNetService& service) const {
  const uint64_t index = indexOfRemoteServerInfoForService(service);
  return index < serversInfo_.size() ? serversInfo_[index] : nullptr;
}

std::shared_ptr<QVHandoffServerInfo>
QVHandoffPeerRegistry::serverInfoForDeviceName(const std::string& deviceName) const {
  for (const auto& serverInfo : serversInfo_) {
    if (serverInfo->deviceName() == deviceName) return serverInfo;
  }
  return nullptr;
}

std::shared_ptr<QVHandoffDocumentInfo> QVHandoffPeerRegistry::updatedRemoteDocumentInfo(
    const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo) const {
  if (!documentInfo) return documentInfo;
  if (const auto serverInfo = serverInfoForDeviceName(documentInfo->deviceName())) {
    const auto& documentsInfo = serverInfo->documentsInfo();
    const QVHandoffManager::DocumentInfoSet current(documentsInfo.begin(), documentsInfo.end());
    if (auto match = QVHandoffManager::documentInfo(*documentInfo, current)) return match;
  }
  return documentInfo;
}

// MARK: Host queries

QVHandoffPeerRegistry::ServerInfoList QVHandoffPeerRegistry::remoteServersInfo() const {
  ServerInfoList upToDate;
  std::copy_if(serversInfo_.begin(), serversInfo_.end(), std::back_inserter(upToDate),
               [](const auto& serverInfo) { return serverInfo->upToDate(); });
  return upToDate;
}

std::optional<QVHandoffPeerRegistry::ServerInfoList>
QVHandoffPeerRegistry::remoteServersInfoPassingTest(const DocumentInfoTest& test) const {
  if (!test) return std::nullopt;
  ServerInfoList copies;
  for (const auto& serverInfo : remoteServersInfo()) {
    auto copy = serverInfo->copy();
    std::vector<std::shared_ptr<QVHandoffDocumentInfo>> kept;
    kept.reserve(copy->documentsInfo().size());
    const auto& documentsInfo = copy->documentsInfo();
    bool stop = false;
    for (uint64_t index = 0; index < documentsInfo.size() && !stop; ++index) {
      if (test(documentsInfo[index], index, &stop)) {
        kept.push_back(documentsInfo[index]);
        continue;
      }
      copy->setFiltered(true);
      // The index is not shifted for documents left out before it: the host sees it as the peer sent it.
      if (copy->currentDocumentIndex() == index) copy->setCurrentDocumentIndex(QVNotFound);
    }
    copy->setDocumentsInfo(std::move(kept));
    copies.push_back(std::move(copy));
  }
  return copies;
}
