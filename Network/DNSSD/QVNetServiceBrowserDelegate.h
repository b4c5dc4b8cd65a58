// SPDX-License-Identifier: MIT
#pragma once
// What a QVNetServiceBrowser tells its delegate, always on the main queue. Every operation has an empty
// default.

#include "Foundation/QVTypes.h"
#include "QVHandoff/QVHandoffExport.h"

#include <memory>

class QVNetService;
class QVNetServiceBrowser;

class QVHANDOFF_EXPORT QVNetServiceBrowserDelegate {
public:
  virtual ~QVNetServiceBrowserDelegate() = default;

  /// Once per service name, however many interfaces it shows up on. `moreComing` is always false: the
  /// engine does not say.
  virtual void netServiceBrowserDidFindService(const std::shared_ptr<QVNetServiceBrowser>& /*browser*/,
                                               const std::shared_ptr<QVNetService>& /*service*/,
                                               bool /*moreComing*/) {}
  /// When the last instance of the name went, with the service object reported when found.
  virtual void netServiceBrowserDidRemoveService(const std::shared_ptr<QVNetServiceBrowser>& /*browser*/,
                                                 const std::shared_ptr<QVNetService>& /*service*/,
                                                 bool /*moreComing*/) {}
  /// The search could not start or broke off; the browser has stopped.
  virtual void netServiceBrowserDidNotSearch(const std::shared_ptr<QVNetServiceBrowser>& /*browser*/,
                                             const QVUserInfo& /*errorDict*/) {}
  /// The search ended by the browser's stop().
  virtual void netServiceBrowserDidStopSearch(const std::shared_ptr<QVNetServiceBrowser>& /*browser*/) {}
};
