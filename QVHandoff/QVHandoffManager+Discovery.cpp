// SPDX-License-Identifier: MIT
// Discovery and the registry of remote servers: the manager's operations forward to its peer registry.

#include "Foundation/QVMainQueue.h"
#include "Foundation/QVNotificationCenter.h"
#include "Network/HTTPClient/QVURLRequest.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffManager.h"
#include "QVHandoff/QVHandoffPeerRegistry.h"
#include "QVHandoff/QVHandoffServerInfo.h"

#include "Foundation/QVLog.h"

#include <string_view>

#include <fmt/format.h>

QV_LOG_SOURCE("QVHandoff/QVHandoffManager")

void QVHandoffManager::startBrowsing() {
  registry_->startBrowsing();
}

void QVHandoffManager::stopBrowsing() {
  registry_->stopBrowsing();
}

void QVHandoffManager::netServiceBrowserDidFindService(const std::shared_ptr<QVNetServiceBrowser>& browser,
                                                       const std::shared_ptr<QVNetService>& service,
                                                       bool moreComing) {
  registry_->netServiceBrowserDidFindService(browser, service, moreComing);
}

void QVHandoffManager::netServiceBrowserDidRemoveService(const std::shared_ptr<QVNetServiceBrowser>& browser,
                                                         const std::shared_ptr<QVNetService>& service,
                                                         bool moreComing) {
  registry_->netServiceBrowserDidRemoveService(browser, service, moreComing);
}

void QVHandoffManager::netServiceBrowserDidNotSearch(const std::shared_ptr<QVNetServiceBrowser>& browser,
                                                     const QVUserInfo& errorDict) {
  registry_->netServiceBrowserDidNotSearch(browser, errorDict);
}

void QVHandoffManager::netServiceDidResolveAddress(const std::shared_ptr<QVNetService>& sender) {
  registry_->netServiceDidResolveAddress(sender);
}

void QVHandoffManager::netServiceDidNotResolve(const std::shared_ptr<QVNetService>& sender,
                                               const QVUserInfo& errorDict) {
  registry_->netServiceDidNotResolve(sender, errorDict);
}

void QVHandoffManager::netServiceDidUpdateTXTRecordData(const std::shared_ptr<QVNetService>& sender,
                                                        const QVData& data) {
  registry_->netServiceDidUpdateTXTRecordData(sender, data);
}

void QVHandoffManager::addRemoteServerInfoForService(const std::shared_ptr<QVNetService>& service,
                                                     const QVData& AES256Key) {
  registry_->addRemoteServerInfoForService(service, AES256Key);
}

void QVHandoffManager::removeRemoteServerInfoForService(const std::shared_ptr<QVNetService>& service) {
  registry_->removeRemoteServerInfoForService(service);
}

void QVHandoffManager::updateServerInfoForService(const std::shared_ptr<QVNetService>& service) {
  registry_->updateServerInfoForService(service);
}

void QVHandoffManager::performTabsListHTTPRequestForServerInfo(
    const std::shared_ptr<QVHandoffServerInfo>& serverInfo) {
  registry_->performTabsListHTTPRequestForServerInfo(serverInfo);
}

void QVHandoffManager::handleResponseError(const QVError& error,
                                           const std::shared_ptr<QVHandoffServerInfo>& fromServerWithInfo) {
  registry_->handleResponseError(error, fromServerWithInfo);
}

void QVHandoffManager::stopAllOperationsForServerWithInfo(
    const std::shared_ptr<QVHandoffServerInfo>& serverInfo) {
  const std::string deviceName = serverInfo->deviceName();
  // A record may sit in both sets; it fails once.
  DocumentInfoSet operations;
  for (const auto& set : {handoffDocumentsInfo(), saveBackDocumentsInfo()}) {
    for (const auto& documentInfo : set) {
      if (documentInfo->deviceName() == deviceName) operations.insert(documentInfo);
    }
  }
  for (const auto& documentInfo : operations) {
    QV_LOG_INFO("Stop operation for document {}", documentInfo->description());
    documentInfo->handleFileTransferError(internalError());
  }
}

void QVHandoffManager::postServersInfoUpdateNotification() {
  QVNotificationCenter::defaultCenter().post(QVHandoffManagerDidUpdateServersInfoNotification, this);
  performHandoffTests();
}

std::string QVHandoffManager::ownServiceName() {
  return localServer()->publishedName();
}

void QVHandoffManager::postActiveRemoteDocumentChange(
    const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo) {
  performOnMainThreadSynchronouslyIfPossible([&] {
    QVNotificationCenter::defaultCenter().post(QVHandoffManagerDidChangeActiveRemoteDocumentNotification,
                                               this, {{QVHandoffManagerDocumentInfoKey, documentInfo}});
  });
}

// MARK: Lookups

uint64_t QVHandoffManager::indexOfRemoteServerInfoForService(const QVNetService& service) const {
  return registry_->indexOfRemoteServerInfoForService(service);
}

std::shared_ptr<QVHandoffServerInfo>
QVHandoffManager::remoteServerInfoForService(const QVNetService& service) const {
  return registry_->remoteServerInfoForService(service);
}

std::shared_ptr<QVHandoffServerInfo>
QVHandoffManager::serverInfoForDeviceName(const std::string& deviceName) const {
  return registry_->serverInfoForDeviceName(deviceName);
}

std::shared_ptr<QVHandoffServerInfo>
QVHandoffManager::serverInfoForDocumentInfo(const QVHandoffDocumentInfo& documentInfo) const {
  return serverInfoForDeviceName(documentInfo.deviceName());
}

std::shared_ptr<QVHandoffServerInfo>
QVHandoffManager::identifyServerInfoForDocumentInfo(QVHandoffDocumentInfo& documentInfo) const {
  if (!documentInfo.parentServerInfo())
    documentInfo.setParentServerInfo(serverInfoForDocumentInfo(documentInfo));
  return documentInfo.parentServerInfo();
}

std::shared_ptr<QVHandoffDocumentInfo> QVHandoffManager::updatedRemoteDocumentInfo(
    const std::shared_ptr<QVHandoffDocumentInfo>& documentInfo) const {
  return registry_->updatedRemoteDocumentInfo(documentInfo);
}

QVHandoffManager::ServerInfoList QVHandoffManager::remoteServersInfo() const {
  return registry_->remoteServersInfo();
}

std::optional<QVHandoffManager::ServerInfoList>
QVHandoffManager::remoteServersInfoPassingTest(const DocumentInfoTest& test) const {
  return registry_->remoteServersInfoPassingTest(test);
}

const QVHandoffManager::ServerInfoList& QVHandoffManager::serversInfo() const {
  return registry_->serversInfo();
}

const std::vector<std::shared_ptr<QVNetServiceBrowser>>& QVHandoffManager::serviceBrowsers() const {
  return registry_->serviceBrowsers();
}

// MARK: HTTP client

QVHTTPSessionManager& QVHandoffManager::HTTPSessionManager() const {
  return registry_->HTTPSessionManager();
}

void QVHandoffManager::setContentType(const std::optional<std::string>& contentType,
                                      QVURLRequest& forRequest) {
  if (contentType && !contentType->empty()) {
    forRequest.setValue(*contentType, QVHandoffContentTypeHeader);
    forRequest.setValue(QVHandoffAES256ContentEncoding, QVHandoffContentEncodingHeader);
  }
  forRequest.setValue(QVHandoffAES256ContentEncoding, QVHandoffAcceptEncodingHeader);
}

std::string QVHandoffManager::HTTPAddressForHost(const std::string& host, int64_t port) {
  const std::string portPart = port != 0 && port != 80 ? fmt::format(":{}", port) : std::string();
  std::string_view hostName = host;
  if (hostName.ends_with('.')) hostName.remove_suffix(1);
  return fmt::format("http://{}{}", hostName, portPart);
}

// MARK: Transfers in flight
// Only the two accessors; the transfers that fill the sets live with the transfer code.

QVHandoffManager::DocumentInfoSet QVHandoffManager::handoffDocumentsInfo() const {
  std::lock_guard lock(transfersMutex_);
  return handoffDocumentsInfo_;
}

QVHandoffManager::DocumentInfoSet QVHandoffManager::saveBackDocumentsInfo() const {
  std::lock_guard lock(transfersMutex_);
  return saveBackDocumentsInfo_;
}
