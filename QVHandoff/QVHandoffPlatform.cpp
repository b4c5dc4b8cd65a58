// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffPlatform.h"

#include "Network/DNSSD/QVDNSSDEngine.h"
#include "Network/HTTPClient/QVHTTPSessionManager.h"

#include <mutex>

namespace {

struct FactorySlot {
  std::mutex mutex;
  QVHandoffPlatform::Factory factory;
};

FactorySlot& factorySlot() {
  static FactorySlot slot;
  return slot;
}

} // namespace

QVHandoffPlatform QVHandoffPlatform::makeDefault() {
  return {std::make_shared<QVDNSSDEngine>(QVDNSSDConfiguration::current()),
          std::make_shared<QVHTTPSessionManager>()};
}

QVHandoffPlatform QVHandoffPlatform::make() {
  Factory factory;
  {
    FactorySlot& slot = factorySlot();
    std::lock_guard lock(slot.mutex);
    factory = slot.factory;
  }
  // Called outside the lock: a factory may well make its platform from the default one.
  return factory ? factory() : makeDefault();
}

void QVHandoffPlatform::setFactory(Factory factory) {
  FactorySlot& slot = factorySlot();
  std::lock_guard lock(slot.mutex);
  slot.factory = std::move(factory);
}
