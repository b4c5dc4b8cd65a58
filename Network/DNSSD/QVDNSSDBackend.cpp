// SPDX-License-Identifier: MIT
#include "Network/DNSSD/QVDNSSDBackend.h"

#include "Network/DNSSD/QVDNSSDPublication.h"

#include <avahi-common/error.h>

#include <vector>

QVDNSSDBackend::QVDNSSDBackend() : poll_(avahi_threaded_poll_new()) {}

QVDNSSDBackend::~QVDNSSDBackend() {
  stopPollThread();
}

const AvahiPoll* QVDNSSDBackend::pollAPI() const {
  return poll_ ? avahi_threaded_poll_get(poll_.get()) : nullptr;
}

int QVDNSSDBackend::startPollThread() {
  if (!poll_) return AVAHI_ERR_NO_MEMORY;
  if (avahi_threaded_poll_start(poll_.get()) < 0) return AVAHI_ERR_OS;
  pollStarted_ = true;
  return AVAHI_OK;
}

void QVDNSSDBackend::stopPollThread() {
  if (!pollStarted_) return;
  avahi_threaded_poll_stop(poll_.get());
  pollStarted_ = false;
}

void QVDNSSDBackend::lock() {
  avahi_threaded_poll_lock(poll_.get());
}

void QVDNSSDBackend::unlock() {
  avahi_threaded_poll_unlock(poll_.get());
}

std::unique_ptr<QVDNSSDPublication>
QVDNSSDBackend::publish(std::string name, std::string type, std::string domain, uint16_t port, QVData txt,
                        std::function<void(const std::string& name)> established,
                        std::function<void(int error)> failed) {
  return std::make_unique<QVDNSSDPublication>(
      *this, std::move(name), std::move(type), std::move(domain), port, std::move(txt),
      QVDNSSDPublication::Callbacks{std::move(established), std::move(failed)});
}

void QVDNSSDBackend::engineStateChanged(bool running) {
  running_ = running;
  // Publications follow: withdrawn while the host name is being (re)claimed, added back once it holds.
  const std::vector<QVDNSSDPublication*> publications(publications_.begin(), publications_.end());
  for (QVDNSSDPublication* publication : publications)
    publication->engineStateChanged(running);
}

void QVDNSSDBackend::engineFailed(int error) {
  running_ = false;
  failed_ = true;
  const std::vector<QVDNSSDPublication*> publications(publications_.begin(), publications_.end());
  for (QVDNSSDPublication* publication : publications)
    publication->engineFailed(error);
  const std::vector<const Query*> queries(queries_.begin(), queries_.end());
  for (const Query* query : queries)
    query->fail(error);
}

QVDNSSDBackend::Query::Query(QVDNSSDBackend& backend, Callback callback)
    : backend_(backend), callback_(std::move(callback)) {
  backend_.queries_.insert(this);
}

QVDNSSDBackend::Query::~Query() {
  backend_.queries_.erase(this);
}

void QVDNSSDBackend::Query::fail(int error) const {
  Event event;
  event.kind = Event::Kind::Failed;
  event.error = error;
  callback_(event);
}

void QVDNSSDBackend::Query::browseEvent(AvahiBrowserEvent event, AvahiIfIndex interface,
                                        AvahiProtocol protocol, const char* name, const char* type,
                                        const char* domain, const QVData& txt) const {
  if (event == AVAHI_BROWSER_FAILURE) {
    fail(backend_.lastError());
    return;
  }
  if (event != AVAHI_BROWSER_NEW && event != AVAHI_BROWSER_REMOVE) return;
  Event result;
  result.kind = event == AVAHI_BROWSER_NEW ? Event::Kind::Added : Event::Kind::Removed;
  result.interface = interface;
  result.protocol = protocol;
  result.name = name ? name : "";
  result.type = type ? type : "";
  result.domain = domain ? domain : "";
  result.txt = txt;
  callback_(result);
}

void QVDNSSDBackend::Query::resolverEvent(AvahiResolverEvent event, AvahiIfIndex interface,
                                          AvahiProtocol protocol, const char* hostName,
                                          const AvahiAddress* address, uint16_t port,
                                          AvahiStringList* txt) const {
  if (event != AVAHI_RESOLVER_FOUND) {
    fail(backend_.lastError());
    return;
  }
  Event result;
  result.kind = Event::Kind::Resolved;
  result.interface = interface;
  result.protocol = protocol;
  result.hostName = hostName ? hostName : "";
  result.address = QVAvahiAddressText(address);
  result.port = port;
  result.txt = QVTXTDataFromAvahiStringList(txt);
  callback_(result);
}
