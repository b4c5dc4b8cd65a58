// SPDX-License-Identifier: MIT
#pragma once
// What a DNS-SD engine (QVDNSSDEngine) runs: the system daemon over D-Bus or the embedded stack, both
// driven by one Avahi poll thread. Everything declared here runs with
// the poll lock held: inside Avahi's callbacks on the poll thread, elsewhere inside a lock_guard on the
// backend. Callbacks only record and post; they never take the lock again. Private to Network/DNSSD.

#include "Network/DNSSD/QVDNSSDAvahi.h"
#include "Network/DNSSD/QVDNSSDConfiguration.h"

#include <avahi-common/defs.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

class QVDNSSDPublication;

// The engine's interface is browse, resolve, TXT and publish; what the two engines share (the query
// bookkeeping, the C callbacks of service browsers and resolvers, the publication with its renaming)
// lives here and in QVDNSSDPublication, each engine only makes its Avahi objects.
class QVDNSSDBackend {
public:
  virtual ~QVDNSSDBackend();
  QVDNSSDBackend(const QVDNSSDBackend&) = delete;
  QVDNSSDBackend& operator=(const QVDNSSDBackend&) = delete;

  // The poll lock (never from the poll thread: Avahi's mutex is not recursive).
  void lock();
  void unlock();

  // What a browse, resolve or record query reports.
  struct Event {
    enum class Kind { Added, Removed, Resolved, Failed };
    Kind kind = Kind::Failed;
    int interface = -1;
    int protocol = -1;
    std::string name;
    std::string type;
    std::string domain;
    std::string hostName;
    std::string address;
    uint16_t port = 0;
    QVData txt;
    int error = 0;
  };
  using Callback = std::function<void(const Event&)>;

  // A running query; destroying it (with the lock held) ends it.
  class Query {
  public:
    Query(QVDNSSDBackend& backend, Callback callback);
    virtual ~Query();
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;
    void fail(int error) const;

    // The bodies of the engines' C callbacks, alike for both. Service browsers give names, record
    // browsers the record.
    void browseEvent(AvahiBrowserEvent event, AvahiIfIndex interface, AvahiProtocol protocol,
                     const char* name, const char* type, const char* domain, const QVData& txt = {}) const;
    void resolverEvent(AvahiResolverEvent event, AvahiIfIndex interface, AvahiProtocol protocol,
                       const char* hostName, const AvahiAddress* address, uint16_t port,
                       AvahiStringList* txt) const;

  private:
    QVDNSSDBackend& backend_;
    Callback callback_;
  };

  // Services of `type` in `domain`, per interface and protocol.
  virtual std::unique_ptr<Query> browseServices(const std::string& type, const std::string& domain,
                                                Callback callback, int& error) = 0;
  // One service's host, IPv4 address, port and TXT record; Avahi gives up after a few seconds.
  virtual std::unique_ptr<Query> resolveService(const std::string& name, const std::string& type,
                                                const std::string& domain, Callback callback, int& error) = 0;
  // The TXT record of one service, reported each time a new one arrives.
  virtual std::unique_ptr<Query> browseTXTRecord(const std::string& name, const std::string& type,
                                                 const std::string& domain, Callback callback,
                                                 int& error) = 0;
  // What each engine adds a publication's service with (the publication is the one user).
  class EntryGroup {
  public:
    virtual ~EntryGroup() = default;
    virtual int addService(const std::string& name, const std::string& type, const std::string& domain,
                           uint16_t port, AvahiStringList* txt) = 0;
    virtual int updateServiceTXT(const std::string& name, const std::string& type, const std::string& domain,
                                 AvahiStringList* txt) = 0;
    virtual int commit() = 0;
    virtual void reset() = 0;
  };
  using EntryGroupCallback = std::function<void(AvahiEntryGroupState state)>;

  // A service of ours, added once the engine runs and again after the host name was claimed anew. An
  // empty name publishes under the engine's host name.
  std::unique_ptr<QVDNSSDPublication> publish(std::string name, std::string type, std::string domain,
                                              uint16_t port, QVData txt,
                                              std::function<void(const std::string& name)> established,
                                              std::function<void(int error)> failed);

  // Whether entries may be added now: the host name is established.
  bool running() const { return running_; }
  // The engine is gone (the daemon went away); new work goes to a new engine.
  bool failed() const { return failed_; }

protected:
  friend class QVDNSSDPublication;

  virtual std::unique_ptr<EntryGroup> newEntryGroup(EntryGroupCallback callback, int& error) = 0;

  virtual std::string hostName() = 0;
  virtual int lastError() = 0;

  void addPublication(QVDNSSDPublication* publication) { publications_.insert(publication); }
  void removePublication(QVDNSSDPublication* publication) { publications_.erase(publication); }

  QVDNSSDBackend();
  const AvahiPoll* pollAPI() const;
  int startPollThread();
  // Joins the poll thread; engines call it first in their destructor, before freeing their Avahi objects.
  void stopPollThread();

  // Engines report their state from their state callback.
  void engineStateChanged(bool running);
  void engineFailed(int error);

  // A query owning the Avahi object that `start(userdata)` makes; none, with the engine's error, when Avahi
  // refused it.
  template <class AvahiQuery, class Start>
  std::unique_ptr<Query> startQuery(Callback callback, int& error, Start start) {
    auto query = std::make_unique<AvahiQuery>(*this, std::move(callback));
    query->handle.reset(start(static_cast<void*>(static_cast<Query*>(query.get()))));
    if (query->handle) return query;
    error = lastError();
    return nullptr;
  }

  // The C callbacks of both libraries' service browsers and resolvers, which differ only in the type of
  // their first argument; `userdata` is the query.
  template <class Browser>
  static void serviceBrowsed(Browser*, AvahiIfIndex interface, AvahiProtocol protocol,
                             AvahiBrowserEvent event, const char* name, const char* type, const char* domain,
                             AvahiLookupResultFlags, void* userdata) {
    static_cast<const Query*>(userdata)->browseEvent(event, interface, protocol, name, type, domain);
  }
  template <class Resolver>
  static void serviceResolved(Resolver*, AvahiIfIndex interface, AvahiProtocol protocol,
                              AvahiResolverEvent event, const char*, const char*, const char*,
                              const char* hostName, const AvahiAddress* address, uint16_t port,
                              AvahiStringList* txt, AvahiLookupResultFlags, void* userdata) {
    static_cast<const Query*>(userdata)->resolverEvent(event, interface, protocol, hostName, address, port,
                                                       txt);
  }

private:
  QVAvahiThreadedPoll poll_;
  bool pollStarted_ = false;
  bool running_ = false;
  std::atomic<bool> failed_ = false;
  std::set<const Query*> queries_;
  std::set<QVDNSSDPublication*> publications_;
};

// A query that owns one Avahi object: freeing it ends the query.
template <class Handle, auto Free> class QVDNSSDAvahiQuery : public QVDNSSDBackend::Query {
public:
  using Query::Query;
  std::unique_ptr<Handle, QVCFree<Free>> handle;
};

// Owns an object of the poll thread's world from outside it: destroyed with the poll lock held, and keeps
// the engine alive until then.
template <class T> struct QVDNSSDLockedDelete {
  std::shared_ptr<QVDNSSDBackend> backend;
  void operator()(T* object) const {
    std::lock_guard lock(*backend);
    delete object;
  }
};
template <class T> using QVDNSSDHandle = std::unique_ptr<T, QVDNSSDLockedDelete<T>>;

template <class T>
QVDNSSDHandle<T> QVDNSSDAdopt(const std::shared_ptr<QVDNSSDBackend>& backend, std::unique_ptr<T> object) {
  return QVDNSSDHandle<T>(object.release(), QVDNSSDLockedDelete<T>{backend});
}
