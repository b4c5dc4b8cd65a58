// SPDX-License-Identifier: MIT
#pragma once
// The embedded stack: Avahi's mDNS responder running inside this process, for machines without a daemon.
// It claims its own host name (renaming on a collision) on the configured interfaces only. Private to
// Network/DNSSD.

#include "Network/DNSSD/QVDNSSDBackend.h"

#include <avahi-core/core.h>

void QVDNSSDCoreFreeServer(AvahiServer* server);

class QVDNSSDCoreBackend final : public QVDNSSDBackend {
public:
  static std::shared_ptr<QVDNSSDCoreBackend> make(const QVDNSSDConfiguration& configuration, int& error);
  ~QVDNSSDCoreBackend() override;

  std::unique_ptr<Query> browseServices(const std::string& type, const std::string& domain, Callback callback,
                                        int& error) override;
  std::unique_ptr<Query> resolveService(const std::string& name, const std::string& type,
                                        const std::string& domain, Callback callback, int& error) override;
  std::unique_ptr<Query> browseTXTRecord(const std::string& name, const std::string& type,
                                         const std::string& domain, Callback callback, int& error) override;

private:
  std::unique_ptr<EntryGroup> newEntryGroup(EntryGroupCallback callback, int& error) override;
  std::string hostName() override;
  int lastError() override;
  QVDNSSDCoreBackend() = default;
  static void serverStateChanged(AvahiServer* server, AvahiServerState state, void* userdata);

  std::unique_ptr<AvahiServer, QVCFree<&QVDNSSDCoreFreeServer>> server_;
};
