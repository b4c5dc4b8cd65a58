// SPDX-License-Identifier: MIT
#pragma once
// How an engine reaches DNS-SD: the system daemon, the embedded stack, or whichever works. The environment
// gives the defaults.

#include "QVHandoff/QVHandoffExport.h"
#include <optional>
#include <string>
#include <vector>

struct QVHANDOFF_EXPORT QVDNSSDConfiguration {
  enum class Mode { Auto, Daemon, Embedded };

  /// Auto: the daemon when one answers, else the embedded stack.
  Mode mode = Mode::Auto;
  /// Embedded stack only: the interfaces it may use (all when empty).
  std::vector<std::string> interfaces;
  /// Embedded stack only: the host name to claim (the machine's when empty). Stacks that share a network
  /// namespace must claim the same name.
  std::string hostName;

  /// QVHANDOFF_DNSSD (auto, daemon, embedded) and QVHANDOFF_INTERFACES (comma-separated).
  static QVDNSSDConfiguration fromEnvironment();
  /// "auto", "daemon" or "embedded"; none for anything else.
  static std::optional<Mode> modeFromString(const std::string& text);
  /// The inverse of modeFromString().
  static const char* stringFromMode(Mode mode);
  /// Comma-separated names, trimmed of blanks; empty entries are dropped.
  static std::vector<std::string> interfacesFromString(const std::string& text);

  /// What the default platform's engine is made with (QVHandoffPlatform::makeDefault); fromEnvironment()
  /// until set. An engine keeps the configuration it was made with.
  static QVDNSSDConfiguration current();
  /// Applies to engines made from now on; any thread.
  static void setCurrent(QVDNSSDConfiguration configuration);
};
