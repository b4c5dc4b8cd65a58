// SPDX-License-Identifier: MIT
#include "Network/DNSSD/QVDNSSDEngine.h"

#include "Foundation/QVLog.h"
#include "Network/DNSSD/QVDNSSDClientBackend.h"
#include "Network/DNSSD/QVDNSSDCoreBackend.h"

#include <avahi-common/error.h>

QV_LOG_SOURCE("DNSSD/QVDNSSDEngine")

QVDNSSDEngine::QVDNSSDEngine(QVDNSSDConfiguration configuration) : configuration_(std::move(configuration)) {}

// The backend joins its poll thread when the last holder lets go: services and browsers keep it alive.
QVDNSSDEngine::~QVDNSSDEngine() = default;

std::shared_ptr<QVDNSSDBackend> QVDNSSDEngine::backend(int& error) {
  std::lock_guard lock(mutex_);
  error = AVAHI_OK;
  if (current_ && !current_->failed()) return current_;
  current_.reset();

  if (configuration_.mode != QVDNSSDConfiguration::Mode::Embedded) {
    current_ = QVDNSSDClientBackend::make(error);
    if (current_) {
      QV_LOG_INFO("Using the DNS-SD daemon");
      return current_;
    }
    if (configuration_.mode == QVDNSSDConfiguration::Mode::Daemon) {
      QV_LOG_ERROR("Couldn't connect to the DNS-SD daemon ({})", QVAvahiErrorText(error));
      return nullptr;
    }
    QV_LOG_INFO("No DNS-SD daemon ({}), using the embedded stack", QVAvahiErrorText(error));
  }
  current_ = QVDNSSDCoreBackend::make(configuration_, error);
  if (!current_) QV_LOG_ERROR("Couldn't start the embedded DNS-SD stack ({})", QVAvahiErrorText(error));
  return current_;
}
