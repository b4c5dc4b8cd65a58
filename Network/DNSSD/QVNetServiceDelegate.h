// SPDX-License-Identifier: MIT
#pragma once
// What a QVNetService tells its delegate, always on the main queue. Every operation has an empty default.

#include "Foundation/QVTypes.h"
#include "QVHandoff/QVHandoffExport.h"

#include <memory>

class QVNetService;

class QVHANDOFF_EXPORT QVNetServiceDelegate {
public:
  virtual ~QVNetServiceDelegate() = default;

  /// The service is established under service->name(), the last name tried after collisions.
  virtual void netServiceDidPublish(const std::shared_ptr<QVNetService>& /*sender*/) {}
  /// `errorDict` holds QVNetServicesErrorDomain and QVNetServicesErrorCode (an Avahi error code).
  virtual void netServiceDidNotPublish(const std::shared_ptr<QVNetService>& /*sender*/,
                                       const QVUserInfo& /*errorDict*/) {}
  /// hostName(), port() and addresses() are set.
  virtual void netServiceDidResolveAddress(const std::shared_ptr<QVNetService>& /*sender*/) {}
  /// Also after the resolve timeout (code -15, Avahi's timeout).
  virtual void netServiceDidNotResolve(const std::shared_ptr<QVNetService>& /*sender*/,
                                       const QVUserInfo& /*errorDict*/) {}
  /// A new TXT record arrived while monitoring.
  virtual void netServiceDidUpdateTXTRecordData(const std::shared_ptr<QVNetService>& /*sender*/,
                                                const QVData& /*data*/) {}
  /// A publication or resolve ended by stop().
  virtual void netServiceDidStop(const std::shared_ptr<QVNetService>& /*sender*/) {}
};
