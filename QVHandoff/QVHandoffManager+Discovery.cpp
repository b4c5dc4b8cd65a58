#include "QVHandoff/QVHandoffManager.h"

#include "Network/DNSSD/QVNetService.h"
#include "Network/DNSSD/QVNetServiceBrowser.h"

// Browsing, resolving and the registry of remote servers are built on these callbacks.

void QVHandoffManager::metaDataStorageDidChange(const std::shared_ptr<QVHandoffMetaStorage>&) {}
void QVHandoffManager::handoffHTTPServerDidPublish(QVHandoffHTTPServer&) {}
void QVHandoffManager::netServiceBrowserDidFindService(const std::shared_ptr<QVNetServiceBrowser>&,
                                                       const std::shared_ptr<QVNetService>&, bool) {}
void QVHandoffManager::netServiceBrowserDidRemoveService(const std::shared_ptr<QVNetServiceBrowser>&,
                                                         const std::shared_ptr<QVNetService>&, bool) {}
void QVHandoffManager::netServiceBrowserDidNotSearch(const std::shared_ptr<QVNetServiceBrowser>&,
                                                     const QVUserInfo&) {}
void QVHandoffManager::netServiceDidResolveAddress(const std::shared_ptr<QVNetService>&) {}
void QVHandoffManager::netServiceDidNotResolve(const std::shared_ptr<QVNetService>&, const QVUserInfo&) {}
void QVHandoffManager::netServiceDidUpdateTXTRecordData(const std::shared_ptr<QVNetService>&, const QVData&) {}
