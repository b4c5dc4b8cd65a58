// SPDX-License-Identifier: MIT
#include "Network/DNSSD/QVDNSSDConfiguration.h"

#include "Foundation/QVLog.h"

#include <cstdlib>
#include <mutex>
#include <utility>

QV_LOG_SOURCE("DNSSD/QVDNSSDConfiguration")

namespace {

struct Shared {
  std::mutex mutex;
  std::optional<QVDNSSDConfiguration> configuration;
};

Shared& shared() {
  static Shared* instance = new Shared(); // read by the poll thread until the process ends
  return *instance;
}

} // namespace

std::optional<QVDNSSDConfiguration::Mode> QVDNSSDConfiguration::modeFromString(const std::string& text) {
  if (text == "auto") return Mode::Auto;
  if (text == "daemon") return Mode::Daemon;
  if (text == "embedded") return Mode::Embedded;
  return std::nullopt;
}

const char* QVDNSSDConfiguration::stringFromMode(Mode mode) {
  switch (mode) {
  case Mode::Daemon:
    return "daemon";
  case Mode::Embedded:
    return "embedded";
  case Mode::Auto:
    break;
  }
  return "auto";
}

std::vector<std::string> QVDNSSDConfiguration::interfacesFromString(const std::string& text) {
  std::vector<std::string> interfaces;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find(',', start);
    if (end == std::string::npos) end = text.size();
    std::string name = text.substr(start, end - start);
    const size_t first = name.find_first_not_of(" \t");
    const size_t last = name.find_last_not_of(" \t");
    if (first != std::string::npos) interfaces.push_back(name.substr(first, last - first + 1));
    start = end + 1;
  }
  return interfaces;
}

QVDNSSDConfiguration QVDNSSDConfiguration::fromEnvironment() {
  QVDNSSDConfiguration configuration;
  if (const char* text = std::getenv("QVHANDOFF_DNSSD"); text && *text) {
    if (auto mode = modeFromString(text)) {
      configuration.mode = *mode;
    } else {
      QV_LOG_WARN("Unknown QVHANDOFF_DNSSD value \"{}\", using auto", text);
    }
  }
  if (const char* text = std::getenv("QVHANDOFF_INTERFACES")) {
    configuration.interfaces = interfacesFromString(text);
  }
  return configuration;
}

QVDNSSDConfiguration QVDNSSDConfiguration::current() {
  Shared& state = shared();
  std::lock_guard lock(state.mutex);
  if (!state.configuration) state.configuration = fromEnvironment();
  return *state.configuration;
}

void QVDNSSDConfiguration::setCurrent(QVDNSSDConfiguration configuration) {
  Shared& state = shared();
  std::lock_guard lock(state.mutex);
  state.configuration = std::move(configuration);
}
