// SPDX-License-Identifier: MIT
#include "Network/DNSSD/QVDNSSDHostRegistry.h"

#include <algorithm>
#include <cctype>
#include <mutex>

namespace {

struct Registry {
  std::mutex mutex;
  std::map<std::string, std::string> addresses;
};

Registry& registry() {
  static Registry* instance = new Registry(); // HTTP threads may look up during teardown
  return *instance;
}

} // namespace

std::string QVDNSSDHostRegistry::normalizedHostName(const std::string& hostName) {
  std::string name = hostName;
  if (!name.empty() && name.back() == '.') name.pop_back();
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return name;
}

void QVDNSSDHostRegistry::setAddress(const std::string& hostName, const std::string& address) {
  const std::string name = normalizedHostName(hostName);
  if (name.empty() || address.empty()) return;
  Registry& state = registry();
  std::lock_guard lock(state.mutex);
  state.addresses[name] = address;
}

std::optional<std::string> QVDNSSDHostRegistry::address(const std::string& hostName) {
  Registry& state = registry();
  std::lock_guard lock(state.mutex);
  auto found = state.addresses.find(normalizedHostName(hostName));
  if (found == state.addresses.end()) return std::nullopt;
  return found->second;
}

void QVDNSSDHostRegistry::removeAddress(const std::string& hostName) {
  Registry& state = registry();
  std::lock_guard lock(state.mutex);
  state.addresses.erase(normalizedHostName(hostName));
}

std::map<std::string, std::string> QVDNSSDHostRegistry::entries() {
  Registry& state = registry();
  std::lock_guard lock(state.mutex);
  return state.addresses;
}

void QVDNSSDHostRegistry::removeAll() {
  Registry& state = registry();
  std::lock_guard lock(state.mutex);
  state.addresses.clear();
}
