// SPDX-License-Identifier: MIT
#include "Network/DNSSD/QVNetServiceBrowser.h"

#include "Foundation/QVLog.h"
#include "Foundation/QVMainQueue.h"
#include "Network/DNSSD/QVDNSSDBackend.h"
#include "Network/DNSSD/QVDNSSDEngine.h"
#include "Network/DNSSD/QVNetService.h"
#include "Network/DNSSD/QVNetServiceBrowserDelegate.h"

#include <avahi-common/error.h>

#include <map>
#include <mutex>
#include <set>
#include <utility>

QV_LOG_SOURCE("DNSSD/QVNetServiceBrowser")

struct QVNetServiceBrowser::State {
  // One name may be announced on several interfaces and protocols: it is one service until the last goes.
  struct Found {
    std::set<std::pair<int, int>> instances;
    std::shared_ptr<QVNetService> service;
    // Once the service could not be resolved, its TXT record is watched: the peer announcing a new one
    // (it came back) is reported as a new service, since its announcement alone makes no browse event.
    QVDNSSDHandle<QVDNSSDBackend::Query> watch;
  };

  mutable std::mutex mutex;
  std::shared_ptr<QVDNSSDEngine> engine;
  std::weak_ptr<QVNetServiceBrowserDelegate> delegate;
  QVDNSSDHandle<QVDNSSDBackend::Query> query;
  // Events of an ended search may still wait in the main queue; they carry an older generation.
  uint64_t generation = 0;
  std::map<std::string, Found> found;

  static void searchEvent(const std::shared_ptr<QVNetServiceBrowser>& self, uint64_t generation,
                          const QVDNSSDBackend::Event& event);
  static void searchFailed(const std::shared_ptr<QVNetServiceBrowser>& self, uint64_t generation, int code);

  // With `mutex` held.
  std::shared_ptr<QVNetService> makeService(const std::weak_ptr<QVNetServiceBrowser>& weak,
                                            const QVDNSSDBackend::Event& event);
  static void serviceNotResolved(const std::shared_ptr<QVNetServiceBrowser>& self,
                                 const std::shared_ptr<QVNetService>& service);
  static void watchEvent(const std::shared_ptr<QVNetServiceBrowser>& self,
                         const std::shared_ptr<QVNetService>& service, const QVDNSSDBackend::Event& event);
};

std::shared_ptr<QVNetService>
QVNetServiceBrowser::State::makeService(const std::weak_ptr<QVNetServiceBrowser>& weak,
                                        const QVDNSSDBackend::Event& event) {
  auto service = std::make_shared<QVNetService>(engine, event.domain, event.type, event.name);
  service->setResolveFailureHandler([weak, weakService = std::weak_ptr(service)] {
    auto self = weak.lock();
    auto service = weakService.lock();
    if (self && service) serviceNotResolved(self, service);
  });
  return service;
}

void QVNetServiceBrowser::State::serviceNotResolved(const std::shared_ptr<QVNetServiceBrowser>& self,
                                                    const std::shared_ptr<QVNetService>& service) {
  State& state = *self->state_;
  int error = AVAHI_OK;
  const auto backend = state.engine ? state.engine->backend(error) : nullptr;
  std::lock_guard lock(state.mutex);
  auto entry = state.found.find(service->name());
  if (!backend || entry == state.found.end() || entry->second.service != service || entry->second.watch)
    return;
  std::unique_ptr<QVDNSSDBackend::Query> query;
  {
    // The service's own lock is never taken under the engine's: elsewhere the order is the other way.
    const std::string name = service->name(), type = service->type(), domain = service->domain();
    std::lock_guard backendLock(*backend);
    query = backend->browseTXTRecord(
        name, type, domain,
        [weak = std::weak_ptr(self),
         weakService = std::weak_ptr(service)](const QVDNSSDBackend::Event& event) {
          QVMainQueue::main().post([weak, weakService, event] {
            auto self = weak.lock();
            auto service = weakService.lock();
            if (self && service) watchEvent(self, service, event);
          });
        },
        error);
  }
  if (!query) {
    QV_LOG_ERROR("Couldn't watch service \"{}\" for its return ({})", service->name(),
                 QVAvahiErrorText(error));
    return;
  }
  QV_LOG_DEBUG("Watching unresolved service \"{}\" for its return", service->name());
  entry->second.watch = QVDNSSDAdopt(backend, std::move(query));
}

void QVNetServiceBrowser::State::watchEvent(const std::shared_ptr<QVNetServiceBrowser>& self,
                                            const std::shared_ptr<QVNetService>& service,
                                            const QVDNSSDBackend::Event& event) {
  State& state = *self->state_;
  std::shared_ptr<QVNetService> renewed;
  {
    std::lock_guard lock(state.mutex);
    auto entry = state.found.find(service->name());
    if (entry == state.found.end() || entry->second.service != service || !entry->second.watch) return;
    // The cached record comes first and is the one the service already knew; a failure ends the watch.
    if (event.kind == QVDNSSDBackend::Event::Kind::Added && event.txt == service->TXTRecordData()) return;
    if (event.kind == QVDNSSDBackend::Event::Kind::Removed) return;
    entry->second.watch.reset();
    if (event.kind == QVDNSSDBackend::Event::Kind::Failed) return;
    QVDNSSDBackend::Event found;
    found.name = service->name();
    found.type = service->type();
    found.domain = service->domain();
    renewed = state.makeService(self, found);
    entry->second.service = renewed;
  }
  QV_LOG_DEBUG("Service \"{}\" announced itself again", service->name());
  if (auto delegate = self->delegate()) {
    delegate->netServiceBrowserDidRemoveService(self, service, false);
    delegate->netServiceBrowserDidFindService(self, renewed, false);
  }
}

QVNetServiceBrowser::QVNetServiceBrowser(std::shared_ptr<QVDNSSDEngine> engine)
    : state_(std::make_unique<State>()) {
  state_->engine = std::move(engine);
}

QVNetServiceBrowser::~QVNetServiceBrowser() = default;

std::shared_ptr<QVNetServiceBrowserDelegate> QVNetServiceBrowser::delegate() const {
  std::lock_guard lock(state_->mutex);
  return state_->delegate.lock();
}

void QVNetServiceBrowser::setDelegate(std::weak_ptr<QVNetServiceBrowserDelegate> delegate) {
  std::lock_guard lock(state_->mutex);
  state_->delegate = std::move(delegate);
}

void QVNetServiceBrowser::searchForServicesOfType(const std::string& type, const std::string& domain) {
  int error = AVAHI_ERR_NOT_SUPPORTED;
  const auto backend = state_->engine ? state_->engine->backend(error) : nullptr;
  std::lock_guard lock(state_->mutex);
  state_->query.reset();
  state_->found.clear();
  const uint64_t generation = ++state_->generation;
  const std::weak_ptr<QVNetServiceBrowser> weak = weak_from_this();
  std::unique_ptr<QVDNSSDBackend::Query> query;
  if (backend) {
    std::lock_guard backendLock(*backend);
    // An empty domain means the default one; Avahi would read "" as the root.
    query = backend->browseServices(
        type, domain.empty() ? "local" : domain,
        [weak, generation](const QVDNSSDBackend::Event& event) {
          QVMainQueue::main().post([weak, generation, event] {
            if (auto self = weak.lock()) State::searchEvent(self, generation, event);
          });
        },
        error);
  }
  if (!query) {
    QV_LOG_ERROR("Couldn't browse for services of type {} in {} ({})", type, domain, QVAvahiErrorText(error));
    QVMainQueue::main().post([weak, generation, error] {
      if (auto self = weak.lock()) State::searchFailed(self, generation, error);
    });
    return;
  }
  state_->query = QVDNSSDAdopt(backend, std::move(query));
}

void QVNetServiceBrowser::stop() {
  {
    std::lock_guard lock(state_->mutex);
    if (!state_->query) return;
    state_->query.reset();
    state_->found.clear();
    ++state_->generation;
  }
  QVMainQueue::main().post([weak = weak_from_this()] {
    if (auto self = weak.lock()) {
      if (auto delegate = self->delegate()) delegate->netServiceBrowserDidStopSearch(self);
    }
  });
}

void QVNetServiceBrowser::State::searchEvent(const std::shared_ptr<QVNetServiceBrowser>& self,
                                             uint64_t generation, const QVDNSSDBackend::Event& event) {
  if (event.kind == QVDNSSDBackend::Event::Kind::Failed) {
    QV_LOG_ERROR("Browsing broke off ({})", QVAvahiErrorText(event.error));
    searchFailed(self, generation, event.error);
    return;
  }
  State& state = *self->state_;
  std::shared_ptr<QVNetService> service;
  bool added = false;
  {
    std::lock_guard lock(state.mutex);
    if (generation != state.generation) return;
    const std::pair<int, int> instance(event.interface, event.protocol);
    if (event.kind == QVDNSSDBackend::Event::Kind::Added) {
      Found& entry = state.found[event.name];
      added = entry.instances.empty();
      entry.instances.insert(instance);
      if (added) entry.service = state.makeService(self, event);
      service = entry.service;
    } else if (event.kind == QVDNSSDBackend::Event::Kind::Removed) {
      auto entry = state.found.find(event.name);
      if (entry == state.found.end()) return;
      entry->second.instances.erase(instance);
      if (!entry->second.instances.empty()) return;
      service = entry->second.service;
      state.found.erase(entry);
    }
  }
  if (!service || (event.kind == QVDNSSDBackend::Event::Kind::Added && !added)) return;
  auto delegate = self->delegate();
  if (!delegate) return;
  if (added) {
    delegate->netServiceBrowserDidFindService(self, service, false);
  } else {
    delegate->netServiceBrowserDidRemoveService(self, service, false);
  }
}

void QVNetServiceBrowser::State::searchFailed(const std::shared_ptr<QVNetServiceBrowser>& self,
                                              uint64_t generation, int code) {
  {
    std::lock_guard lock(self->state_->mutex);
    if (generation != self->state_->generation) return;
    self->state_->query.reset();
    self->state_->found.clear();
    ++self->state_->generation;
  }
  if (auto delegate = self->delegate())
    delegate->netServiceBrowserDidNotSearch(self, QVNetService::errorDictionary(code));
}
