// SPDX-License-Identifier: MIT
#include "Network/DNSSD/QVNetService.h"

#include "Foundation/QVLog.h"
#include "Foundation/QVMainQueue.h"
#include "Network/DNSSD/QVDNSSDBackend.h"
#include "Network/DNSSD/QVDNSSDEngine.h"
#include "Network/DNSSD/QVDNSSDHostRegistry.h"
#include "Network/DNSSD/QVDNSSDPublication.h"
#include "Network/DNSSD/QVNetServiceDelegate.h"

#include <avahi-common/error.h>

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <mutex>

QV_LOG_SOURCE("DNSSD/QVNetService")

namespace {
constexpr size_t kMaxTXTEntryLength = 255;
// An empty domain means the default one; Avahi would read "" as the root.
constexpr const char* kDefaultDomain = "local";
} // namespace

struct QVNetService::State {
  mutable std::mutex mutex;
  // None for stand-ins, which never reach DNS-SD.
  std::shared_ptr<QVDNSSDEngine> engine;
  std::string domain;
  std::string type;
  std::string name;
  int64_t port = -1;
  std::string hostName;
  std::vector<std::string> addresses;
  QVData txt;
  QVData lastMonitoredTXT;
  std::weak_ptr<QVNetServiceDelegate> delegate;
  std::function<void()> resolveFailureHandler;

  QVDNSSDHandle<QVDNSSDPublication> publication;
  QVDNSSDHandle<QVDNSSDBackend::Query> resolve;
  QVDNSSDHandle<QVDNSSDBackend::Query> monitor;
  // Events of an ended publication, resolve or monitor may still wait in the main queue: each carries the
  // generation it belongs to and is dropped when that has moved on.
  uint64_t publishGeneration = 0;
  uint64_t resolveGeneration = 0;
  uint64_t monitorGeneration = 0;
  bool publishReported = false;
  std::optional<QVMainQueue::TimerID> resolveTimer;
  QVMainQueue::Clock::time_point resolveDeadline;

  std::shared_ptr<QVDNSSDBackend> backend(int& error) const {
    if (engine) return engine->backend(error);
    error = AVAHI_ERR_NOT_SUPPORTED;
    return nullptr;
  }

  // Whether a resolve's answer only repeats what the last resolution gave.
  bool repeatsLastResolution(const QVDNSSDBackend::Event& event) const {
    return port == event.port && hostName == event.hostName && addresses == std::vector{event.address} &&
           txt == event.txt;
  }

  void endResolve() {
    resolve.reset();
    if (resolveTimer) QVMainQueue::main().cancelTimer(*resolveTimer);
    resolveTimer.reset();
  }

  // With `mutex` held. Failures are posted like any other event.
  void startResolveQuery(const std::shared_ptr<QVDNSSDBackend>& backend,
                         const std::weak_ptr<QVNetService>& weak, uint64_t generation);

  // The handlers of the engine's events, on the main queue.
  static void publicationEstablished(const std::shared_ptr<QVNetService>& self, uint64_t generation,
                                     const std::string& publishedName);
  static void publicationFailed(const std::shared_ptr<QVNetService>& self, uint64_t generation, int code);
  static void resolveEvent(const std::shared_ptr<QVNetService>& self, uint64_t generation,
                           const QVDNSSDBackend::Event& event);
  static void resolveFailed(const std::shared_ptr<QVNetService>& self, uint64_t generation, int code);
  static void reportResolveFailure(const std::shared_ptr<QVNetService>& self, int code);
  static void monitorEvent(const std::shared_ptr<QVNetService>& self, uint64_t generation,
                           const QVDNSSDBackend::Event& event);
};

namespace {

// Runs `handler(self, args...)` on the main queue, if the service still lives then.
template <class... Args>
void postToMain(const std::weak_ptr<QVNetService>& weak,
                void (*handler)(const std::shared_ptr<QVNetService>&, Args...), std::decay_t<Args>... args) {
  QVMainQueue::main().post([weak, handler, args...] {
    if (auto self = weak.lock()) handler(self, args...);
  });
}

void tellDelegate(const std::shared_ptr<QVNetService>& service,
                  const std::function<void(QVNetServiceDelegate&)>& call) {
  if (auto delegate = service->delegate()) call(*delegate);
}

} // namespace

void QVNetService::State::publicationEstablished(const std::shared_ptr<QVNetService>& self,
                                                 uint64_t generation, const std::string& publishedName) {
  {
    State& state = *self->state_;
    std::lock_guard lock(state.mutex);
    if (generation != state.publishGeneration || !state.publication) return;
    // A host-name change re-establishes the same name: the delegate hears of each name once.
    if (state.publishReported && state.name == publishedName) return;
    state.publishReported = true;
    state.name = publishedName;
  }
  tellDelegate(self, [&](QVNetServiceDelegate& d) { d.netServiceDidPublish(self); });
}

void QVNetService::State::publicationFailed(const std::shared_ptr<QVNetService>& self, uint64_t generation,
                                            int code) {
  {
    State& state = *self->state_;
    std::lock_guard lock(state.mutex);
    if (generation != state.publishGeneration) return;
    state.publication.reset();
  }
  tellDelegate(self,
               [&](QVNetServiceDelegate& d) { d.netServiceDidNotPublish(self, errorDictionary(code)); });
}

void QVNetService::State::startResolveQuery(const std::shared_ptr<QVDNSSDBackend>& backend,
                                            const std::weak_ptr<QVNetService>& weak, uint64_t generation) {
  int error = AVAHI_OK;
  std::unique_ptr<QVDNSSDBackend::Query> query;
  {
    std::lock_guard backendLock(*backend);
    query = backend->resolveService(
        name, type, domain,
        [weak, generation](const QVDNSSDBackend::Event& event) {
          postToMain(weak, &State::resolveEvent, generation, event);
        },
        error);
  }
  if (!query) {
    QV_LOG_ERROR("Couldn't start resolving service \"{}\" ({})", name, QVAvahiErrorText(error));
    postToMain(weak, &State::resolveFailed, generation, error);
    return;
  }
  resolve = QVDNSSDAdopt(backend, std::move(query));
}

void QVNetService::State::resolveEvent(const std::shared_ptr<QVNetService>& self, uint64_t generation,
                                       const QVDNSSDBackend::Event& event) {
  State& state = *self->state_;
  {
    std::lock_guard lock(state.mutex);
    if (generation != state.resolveGeneration || !state.resolve) return;
    if (event.kind == QVDNSSDBackend::Event::Kind::Failed) {
      if (event.error != AVAHI_ERR_TIMEOUT || QVMainQueue::Clock::now() >= state.resolveDeadline) {
        state.endResolve();
        QV_LOG_DEBUG("Resolve of \"{}\" failed ({})", state.name, QVAvahiErrorText(event.error));
      } else {
        // Avahi gives up after a few seconds; ask again until our own deadline passes.
        QV_LOG_DEBUG("Resolve of \"{}\" still pending, asking again", state.name);
        const auto backend = state.resolve.get_deleter().backend;
        state.resolve.reset();
        state.startResolveQuery(backend, self, generation);
        return;
      }
    } else if (event.kind == QVDNSSDBackend::Event::Kind::Resolved) {
      if (state.repeatsLastResolution(event)) {
        QV_LOG_DEBUG("Resolve of \"{}\" answered with its last address {}:{}, waiting for news", state.name,
                     event.address, event.port);
        return;
      }
      state.endResolve();
      state.hostName = event.hostName;
      state.port = event.port;
      state.addresses = {event.address};
      state.txt = event.txt;
    } else {
      return;
    }
  }
  if (event.kind == QVDNSSDBackend::Event::Kind::Failed) {
    reportResolveFailure(self, event.error);
    return;
  }
  QVDNSSDHostRegistry::setAddress(event.hostName, event.address);
  tellDelegate(self, [&](QVNetServiceDelegate& d) { d.netServiceDidResolveAddress(self); });
}

void QVNetService::State::resolveFailed(const std::shared_ptr<QVNetService>& self, uint64_t generation,
                                        int code) {
  {
    State& state = *self->state_;
    std::lock_guard lock(state.mutex);
    if (generation != state.resolveGeneration) return;
    state.endResolve();
  }
  reportResolveFailure(self, code);
}

void QVNetService::State::reportResolveFailure(const std::shared_ptr<QVNetService>& self, int code) {
  tellDelegate(self,
               [&](QVNetServiceDelegate& d) { d.netServiceDidNotResolve(self, errorDictionary(code)); });
  std::function<void()> handler;
  {
    std::lock_guard lock(self->state_->mutex);
    handler = self->state_->resolveFailureHandler;
  }
  if (handler) handler();
}

void QVNetService::State::monitorEvent(const std::shared_ptr<QVNetService>& self, uint64_t generation,
                                       const QVDNSSDBackend::Event& event) {
  State& state = *self->state_;
  {
    std::lock_guard lock(state.mutex);
    if (generation != state.monitorGeneration || !state.monitor) return;
    if (event.kind == QVDNSSDBackend::Event::Kind::Failed) {
      QV_LOG_ERROR("TXT monitoring of service \"{}\" broke off ({})", state.name,
                   QVAvahiErrorText(event.error));
      state.monitor.reset();
      return;
    }
    // The same record arrives once per interface, and the old one leaves after the new one came.
    if (event.kind != QVDNSSDBackend::Event::Kind::Added || event.txt == state.lastMonitoredTXT) return;
    state.lastMonitoredTXT = event.txt;
    state.txt = event.txt;
  }
  tellDelegate(self, [&](QVNetServiceDelegate& d) { d.netServiceDidUpdateTXTRecordData(self, event.txt); });
}

QVNetService::QVNetService() : state_(std::make_unique<State>()) {}

QVNetService::QVNetService(std::shared_ptr<QVDNSSDEngine> engine, std::string domain, std::string type,
                           std::string name, int port)
    : QVNetService() {
  state_->engine = std::move(engine);
  state_->domain = domain.empty() ? kDefaultDomain : std::move(domain);
  state_->type = std::move(type);
  state_->name = std::move(name);
  state_->port = port;
}

QVNetService::QVNetService(std::shared_ptr<QVDNSSDEngine> engine, std::string domain, std::string type,
                           std::string name)
    : QVNetService(std::move(engine), std::move(domain), std::move(type), std::move(name), -1) {}

QVNetService::~QVNetService() {
  std::lock_guard lock(state_->mutex);
  state_->endResolve();
}

std::string QVNetService::name() const {
  std::lock_guard lock(state_->mutex);
  return state_->name;
}

std::string QVNetService::description() const {
  std::lock_guard lock(state_->mutex);
  return fmt::format("<QVNetService {}> {}. {}. {}", fmt::ptr(this), state_->domain, state_->type,
                     state_->name);
}

std::string QVNetService::type() const {
  std::lock_guard lock(state_->mutex);
  return state_->type;
}

std::string QVNetService::domain() const {
  std::lock_guard lock(state_->mutex);
  return state_->domain;
}

int64_t QVNetService::port() const {
  std::lock_guard lock(state_->mutex);
  return state_->port;
}

std::string QVNetService::hostName() const {
  std::lock_guard lock(state_->mutex);
  return state_->hostName;
}

std::vector<std::string> QVNetService::addresses() const {
  std::lock_guard lock(state_->mutex);
  return state_->addresses;
}

std::shared_ptr<QVNetServiceDelegate> QVNetService::delegate() const {
  std::lock_guard lock(state_->mutex);
  return state_->delegate.lock();
}

void QVNetService::setDelegate(std::weak_ptr<QVNetServiceDelegate> delegate) {
  std::lock_guard lock(state_->mutex);
  state_->delegate = std::move(delegate);
}

void QVNetService::setResolveFailureHandler(std::function<void()> handler) {
  std::lock_guard lock(state_->mutex);
  state_->resolveFailureHandler = std::move(handler);
}

QVData QVNetService::TXTRecordData() const {
  std::lock_guard lock(state_->mutex);
  return state_->txt;
}

bool QVNetService::setTXTRecordData(const QVData& data) {
  std::lock_guard lock(state_->mutex);
  state_->txt = data;
  if (!state_->publication) return true;
  std::lock_guard backendLock(*state_->publication.get_deleter().backend);
  return state_->publication->updateTXT(data) == AVAHI_OK;
}

void QVNetService::publish() {
  int error = AVAHI_OK;
  const auto backend = state_->backend(error);
  std::lock_guard lock(state_->mutex);
  state_->publication.reset();
  state_->publishReported = false;
  const uint64_t generation = ++state_->publishGeneration;
  const std::weak_ptr<QVNetService> weak = weak_from_this();
  if (state_->port < 0 || state_->port > UINT16_MAX) error = AVAHI_ERR_INVALID_PORT;
  if (!backend || error != AVAHI_OK) {
    QV_LOG_ERROR("Couldn't publish service \"{}\" ({})", state_->name, QVAvahiErrorText(error));
    postToMain(weak, &State::publicationFailed, generation, error);
    return;
  }
  std::unique_ptr<QVDNSSDPublication> publication;
  {
    std::lock_guard backendLock(*backend);
    publication = backend->publish(
        state_->name, state_->type, state_->domain, static_cast<uint16_t>(state_->port), state_->txt,
        [weak, generation](const std::string& publishedName) {
          postToMain(weak, &State::publicationEstablished, generation, publishedName);
        },
        [weak, generation](int code) { postToMain(weak, &State::publicationFailed, generation, code); });
  }
  state_->publication = QVDNSSDAdopt(backend, std::move(publication));
}

void QVNetService::resolveWithTimeout(std::chrono::milliseconds timeout) {
  int error = AVAHI_OK;
  const auto backend = state_->backend(error);
  std::lock_guard lock(state_->mutex);
  state_->endResolve();
  const uint64_t generation = ++state_->resolveGeneration;
  const std::weak_ptr<QVNetService> weak = weak_from_this();
  if (!backend) {
    postToMain(weak, &State::resolveFailed, generation, error);
    return;
  }
  state_->resolveDeadline = QVMainQueue::Clock::now() + timeout;
  state_->startResolveQuery(backend, weak, generation);
  if (!state_->resolve) return;
  state_->resolveTimer = QVMainQueue::main().postAfter(timeout, [weak, generation] {
    if (auto self = weak.lock()) State::resolveFailed(self, generation, AVAHI_ERR_TIMEOUT);
  });
}

void QVNetService::stop() {
  bool active = false;
  {
    std::lock_guard lock(state_->mutex);
    active = state_->publication || state_->resolve;
    state_->publication.reset();
    state_->endResolve();
    ++state_->publishGeneration;
    ++state_->resolveGeneration;
  }
  if (!active) return;
  QVMainQueue::main().post([weak = weak_from_this()] {
    if (auto self = weak.lock())
      tellDelegate(self, [&](QVNetServiceDelegate& d) { d.netServiceDidStop(self); });
  });
}

void QVNetService::startMonitoring() {
  int error = AVAHI_OK;
  const auto backend = state_->backend(error);
  std::lock_guard lock(state_->mutex);
  if (state_->monitor) return;
  const uint64_t generation = ++state_->monitorGeneration;
  state_->lastMonitoredTXT.clear();
  std::unique_ptr<QVDNSSDBackend::Query> query;
  if (backend) {
    std::lock_guard backendLock(*backend);
    query = backend->browseTXTRecord(
        state_->name, state_->type, state_->domain,
        [weak = weak_from_this(), generation](const QVDNSSDBackend::Event& event) {
          postToMain(weak, &State::monitorEvent, generation, event);
        },
        error);
  }
  if (!query) {
    QV_LOG_ERROR("Couldn't monitor the TXT record of service \"{}\" ({})", state_->name,
                 QVAvahiErrorText(error));
    return;
  }
  state_->monitor = QVDNSSDAdopt(backend, std::move(query));
}

void QVNetService::stopMonitoring() {
  std::lock_guard lock(state_->mutex);
  state_->monitor.reset();
  ++state_->monitorGeneration;
}

QVTXTRecordDictionary QVNetService::dictionaryFromTXTRecordData(const QVData& data) {
  QVTXTRecordDictionary dictionary;
  size_t offset = 0;
  while (offset < data.size()) {
    const size_t length = data[offset++];
    if (length > data.size() - offset) break; // a truncated last string is dropped
    const auto begin = data.begin() + static_cast<std::ptrdiff_t>(offset);
    const auto end = begin + static_cast<std::ptrdiff_t>(length);
    offset += length;
    const auto equals = std::find(begin, end, static_cast<uint8_t>('='));
    std::string key(begin, equals);
    if (key.empty()) continue;
    dictionary.emplace(std::move(key), equals == end ? QVData() : QVData(equals + 1, end));
  }
  return dictionary;
}

std::optional<QVData> QVNetService::dataFromTXTRecordDictionary(const QVTXTRecordDictionary& dictionary) {
  QVData data;
  for (const auto& [key, value] : dictionary) {
    const size_t length = key.size() + 1 + value.size();
    const bool printable = std::all_of(key.begin(), key.end(), [](char c) { return c >= 0x20 && c <= 0x7e; });
    if (key.empty() || !printable || key.find('=') != std::string::npos || length > kMaxTXTEntryLength) {
      return std::nullopt;
    }
    data.push_back(static_cast<uint8_t>(length));
    data.insert(data.end(), key.begin(), key.end());
    data.push_back('=');
    data.insert(data.end(), value.begin(), value.end());
  }
  // An empty record is one empty string on the wire.
  if (data.empty()) data.push_back(0);
  return data;
}

QVUserInfo QVNetService::errorDictionary(int64_t code) {
  return {{QVNetServicesErrorDomain, std::string(QVNetServicesErrorDomain)}, {QVNetServicesErrorCode, code}};
}
