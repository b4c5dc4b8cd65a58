// SPDX-License-Identifier: MIT
#pragma once
// What a manager reaches the network through: the DNS-SD engine and the HTTP client. Whoever builds a
// manager passes one in; managers made without one (defaultManager() among them) get theirs from the
// platform factory, which a host may replace before it makes its first manager.

#include "QVHandoff/QVHandoffExport.h"

#include <functional>
#include <memory>

class QVDNSSDEngine;
class QVHTTPSessionManager;

struct QVHANDOFF_EXPORT QVHandoffPlatform {
  /// What services are published, browsed and resolved through.
  std::shared_ptr<QVDNSSDEngine> DNSSDEngine;
  /// What requests to peers go through.
  std::shared_ptr<QVHTTPSessionManager> HTTPSessionManager;

  using Factory = std::function<QVHandoffPlatform()>;

  /// The real ones: an engine for QVDNSSDConfiguration::current() (daemon, embedded stack or whichever
  /// works; the interface allow-list) and an HTTP client of its own.
  static QVHandoffPlatform makeDefault();
  /// Through the factory in place; makeDefault() until a host set one.
  static QVHandoffPlatform make();
  /// An empty factory puts makeDefault() back. Any thread; managers already made keep their platform.
  static void setFactory(Factory factory);
};
