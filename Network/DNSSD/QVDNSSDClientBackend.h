// SPDX-License-Identifier: MIT
#pragma once
// The system's mDNS daemon, reached over D-Bus: it owns the host name and the interfaces; this process
// only adds its entry groups and queries. Private to Network/DNSSD.

#include "Network/DNSSD/QVDNSSDBackend.h"

#include <avahi-client/client.h>

void QVDNSSDClientFree(AvahiClient* client);

class QVDNSSDClientBackend final : public QVDNSSDBackend {
public:
  // None when no daemon answers (Avahi's error in `error`).
  static std::shared_ptr<QVDNSSDClientBackend> make(int& error);
  ~QVDNSSDClientBackend() override;

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
  QVDNSSDClientBackend() = default;
  static void clientStateChanged(AvahiClient* client, AvahiClientState state, void* userdata);

  std::unique_ptr<AvahiClient, QVCFree<&QVDNSSDClientFree>> client_;
};
