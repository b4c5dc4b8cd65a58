#pragma once
// How the process reaches DNS-SD: the system daemon, the embedded stack, or whichever works. Set it before
// the first service or browser is used; the environment gives the defaults.

#include "QVHandoff/QVHandoffExport.h"
#include <optional>
#include <string>
#include <vector>

struct QVHANDOFF_EXPORT QVDNSSDConfiguration {
  enum class Mode { Auto, Daemon, Embedded };

  // Auto: the daemon when one answers, else the embedded stack.
  Mode mode = Mode::Auto;
  // Embedded stack only: the interfaces it may use (all when empty).
  std::vector<std::string> interfaces;
  // Embedded stack only: the host name to claim (the machine's when empty). Stacks that share a network
  // namespace must claim the same name.
  std::string hostName;

  // QVHANDOFF_DNSSD (auto, daemon, embedded) and QVHANDOFF_INTERFACES (comma-separated).
  static QVDNSSDConfiguration fromEnvironment();
  static std::optional<Mode> modeFromString(const std::string& text);
  static const char* stringFromMode(Mode mode);
  static std::vector<std::string> interfacesFromString(const std::string& text);

  // The configuration the next DNS-SD engine starts with; fromEnvironment() until set.
  static QVDNSSDConfiguration current();
  static void setCurrent(QVDNSSDConfiguration configuration);
};
