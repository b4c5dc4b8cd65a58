// SPDX-License-Identifier: MIT
#pragma once
// The DNS-SD engine that a manager's browsers, found services and publication share: the system daemon or
// the embedded stack, chosen by its configuration when first needed and chosen anew once it failed (the
// daemon went away). Whoever builds the manager makes one and passes it in. No Avahi type shows here.

#include "Network/DNSSD/QVDNSSDConfiguration.h"

#include <memory>
#include <mutex>

class QVDNSSDBackend;

class QVDNSSDEngine {
public:
  explicit QVDNSSDEngine(QVDNSSDConfiguration configuration);
  virtual ~QVDNSSDEngine();
  QVDNSSDEngine(const QVDNSSDEngine&) = delete;
  QVDNSSDEngine& operator=(const QVDNSSDEngine&) = delete;

  const QVDNSSDConfiguration& configuration() const { return configuration_; }

  // The running backend; none when no engine can run, with Avahi's error code in `error`. Any thread.
  virtual std::shared_ptr<QVDNSSDBackend> backend(int& error);

private:
  const QVDNSSDConfiguration configuration_;
  std::mutex mutex_;
  std::shared_ptr<QVDNSSDBackend> current_;
};
