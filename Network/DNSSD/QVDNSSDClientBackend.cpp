// SPDX-License-Identifier: MIT
#include "Network/DNSSD/QVDNSSDClientBackend.h"

#include "Foundation/QVLog.h"

#include <avahi-client/lookup.h>
#include <avahi-client/publish.h>
#include <avahi-common/error.h>

#include <mutex>

QV_LOG_SOURCE("DNSSD/QVDNSSDClientBackend")

namespace {

constexpr const char* kLibrary = "libavahi-client.so.3";
constexpr AvahiPublishFlags kPublishFlags = AVAHI_PUBLISH_NO_COOKIE; // no TXT entry of our own making

#define QV_AVAHI_CLIENT_FUNCTIONS(X)                                                                         \
  X(avahi_client_new)                                                                                        \
  X(avahi_client_free)                                                                                       \
  X(avahi_client_errno)                                                                                      \
  X(avahi_client_get_host_name)                                                                              \
  X(avahi_entry_group_new)                                                                                   \
  X(avahi_entry_group_free)                                                                                  \
  X(avahi_entry_group_commit)                                                                                \
  X(avahi_entry_group_reset)                                                                                 \
  X(avahi_entry_group_add_service_strlst)                                                                    \
  X(avahi_entry_group_update_service_txt_strlst)                                                             \
  X(avahi_service_browser_new)                                                                               \
  X(avahi_service_browser_free)                                                                              \
  X(avahi_service_resolver_new)                                                                              \
  X(avahi_service_resolver_free)                                                                             \
  X(avahi_record_browser_new)                                                                                \
  X(avahi_record_browser_free)

struct ClientAPI {
#define QV_AVAHI_DECLARE(name) decltype(&::name) name = nullptr;
  QV_AVAHI_CLIENT_FUNCTIONS(QV_AVAHI_DECLARE)
#undef QV_AVAHI_DECLARE
};

// Loaded once and never unloaded: engines and their callbacks may outlive any one user.
const ClientAPI* loadClient(std::string& failure) {
  static std::mutex mutex;
  static const ClientAPI* loaded = nullptr;
  std::lock_guard lock(mutex);
  if (loaded) return loaded;
  void* library = QVAvahiOpenLibrary(kLibrary, failure);
  if (!library) return nullptr;
  auto api = std::make_unique<ClientAPI>();
  bool ok = true;
#define QV_AVAHI_LOAD(name) ok = ok && QVAvahiResolve(library, #name, api->name, failure);
  QV_AVAHI_CLIENT_FUNCTIONS(QV_AVAHI_LOAD)
#undef QV_AVAHI_LOAD
  if (ok) loaded = api.release(); // kept until the process ends, like the library
  return loaded;
}

// Only reached once an engine exists, hence once loadClient() succeeded.
const ClientAPI& client() {
  std::string unused;
  return *loadClient(unused);
}

// Deleters for QVCFree, through the loaded table.
struct ClientFree {
  static void entryGroup(AvahiEntryGroup* group) { client().avahi_entry_group_free(group); }
  static void serviceBrowser(AvahiServiceBrowser* browser) { client().avahi_service_browser_free(browser); }
  static void serviceResolver(AvahiServiceResolver* resolver) {
    client().avahi_service_resolver_free(resolver);
  }
  static void recordBrowser(AvahiRecordBrowser* browser) { client().avahi_record_browser_free(browser); }
};

using ClientServiceBrowser = QVDNSSDAvahiQuery<AvahiServiceBrowser, &ClientFree::serviceBrowser>;
using ClientServiceResolver = QVDNSSDAvahiQuery<AvahiServiceResolver, &ClientFree::serviceResolver>;
using ClientRecordBrowser = QVDNSSDAvahiQuery<AvahiRecordBrowser, &ClientFree::recordBrowser>;

class ClientEntryGroup final : public QVDNSSDBackend::EntryGroup {
public:
  explicit ClientEntryGroup(QVDNSSDBackend::EntryGroupCallback callback) : callback_(std::move(callback)) {}

  bool create(AvahiClient* avahiClient) {
    group_.reset(client().avahi_entry_group_new(avahiClient, &ClientEntryGroup::stateChanged, this));
    return group_ != nullptr;
  }

  int addService(const std::string& name, const std::string& type, const std::string& domain, uint16_t port,
                 AvahiStringList* txt) override {
    return client().avahi_entry_group_add_service_strlst(group_.get(), AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                                         kPublishFlags, name.c_str(), type.c_str(),
                                                         domain.c_str(), nullptr, port, txt);
  }

  int updateServiceTXT(const std::string& name, const std::string& type, const std::string& domain,
                       AvahiStringList* txt) override {
    return client().avahi_entry_group_update_service_txt_strlst(
        group_.get(), AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, kPublishFlags, name.c_str(), type.c_str(),
        domain.c_str(), txt);
  }

  int commit() override { return client().avahi_entry_group_commit(group_.get()); }
  void reset() override { client().avahi_entry_group_reset(group_.get()); }

private:
  static void stateChanged(AvahiEntryGroup*, AvahiEntryGroupState state, void* userdata) {
    static_cast<ClientEntryGroup*>(userdata)->callback_(state);
  }

  QVDNSSDBackend::EntryGroupCallback callback_;
  std::unique_ptr<AvahiEntryGroup, QVCFree<&ClientFree::entryGroup>> group_;
};

} // namespace

void QVDNSSDClientFree(AvahiClient* avahiClient) {
  client().avahi_client_free(avahiClient);
}

std::shared_ptr<QVDNSSDClientBackend> QVDNSSDClientBackend::make(int& error) {
  std::string failure;
  const ClientAPI* api = loadClient(failure);
  if (!api) {
    QV_LOG_ERROR("Couldn't load the DNS-SD client library ({})", failure);
    error = AVAHI_ERR_NOT_SUPPORTED;
    return nullptr;
  }
  std::shared_ptr<QVDNSSDClientBackend> backend(new QVDNSSDClientBackend());
  if (!backend->pollAPI()) {
    error = AVAHI_ERR_NO_MEMORY;
    return nullptr;
  }
  backend->client_.reset(api->avahi_client_new(backend->pollAPI(), AvahiClientFlags(0),
                                               &QVDNSSDClientBackend::clientStateChanged, backend.get(),
                                               &error));
  if (!backend->client_) return nullptr;
  error = backend->startPollThread();
  if (error != AVAHI_OK) return nullptr;
  return backend;
}

QVDNSSDClientBackend::~QVDNSSDClientBackend() {
  stopPollThread();
}

void QVDNSSDClientBackend::clientStateChanged(AvahiClient* avahiClient, AvahiClientState state,
                                              void* userdata) {
  auto* self = static_cast<QVDNSSDClientBackend*>(userdata);
  switch (state) {
  case AVAHI_CLIENT_S_RUNNING:
    self->engineStateChanged(true);
    break;
  case AVAHI_CLIENT_S_COLLISION:
  case AVAHI_CLIENT_S_REGISTERING:
    // The daemon is (re)claiming its host name; entries come back once it runs.
    self->engineStateChanged(false);
    break;
  case AVAHI_CLIENT_FAILURE: {
    const int error = client().avahi_client_errno(avahiClient);
    QV_LOG_ERROR("Lost the DNS-SD daemon ({})", QVAvahiErrorText(error));
    self->engineFailed(error);
    break;
  }
  case AVAHI_CLIENT_CONNECTING:
    break;
  }
}

std::unique_ptr<QVDNSSDBackend::Query> QVDNSSDClientBackend::browseServices(const std::string& type,
                                                                            const std::string& domain,
                                                                            Callback callback, int& error) {
  return startQuery<ClientServiceBrowser>(std::move(callback), error, [&](void* userdata) {
    return client().avahi_service_browser_new(client_.get(), AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                              type.c_str(), domain.c_str(), AvahiLookupFlags(0),
                                              &serviceBrowsed<AvahiServiceBrowser>, userdata);
  });
}

std::unique_ptr<QVDNSSDBackend::Query> QVDNSSDClientBackend::resolveService(const std::string& name,
                                                                            const std::string& type,
                                                                            const std::string& domain,
                                                                            Callback callback, int& error) {
  return startQuery<ClientServiceResolver>(std::move(callback), error, [&](void* userdata) {
    return client().avahi_service_resolver_new(
        client_.get(), AVAHI_IF_UNSPEC, AVAHI_PROTO_INET, name.c_str(), type.c_str(), domain.c_str(),
        AVAHI_PROTO_INET, AvahiLookupFlags(0), &serviceResolved<AvahiServiceResolver>, userdata);
  });
}

std::unique_ptr<QVDNSSDBackend::Query> QVDNSSDClientBackend::browseTXTRecord(const std::string& name,
                                                                             const std::string& type,
                                                                             const std::string& domain,
                                                                             Callback callback, int& error) {
  const std::string fullName = QVAvahiFullServiceName(name, type, domain);
  if (fullName.empty()) {
    error = AVAHI_ERR_INVALID_SERVICE_NAME;
    return nullptr;
  }
  return startQuery<ClientRecordBrowser>(std::move(callback), error, [&](void* userdata) {
    return client().avahi_record_browser_new(
        client_.get(), AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, fullName.c_str(), AVAHI_DNS_CLASS_IN,
        AVAHI_DNS_TYPE_TXT, AvahiLookupFlags(0),
        [](AvahiRecordBrowser*, AvahiIfIndex interface, AvahiProtocol protocol, AvahiBrowserEvent event,
           const char*, uint16_t, uint16_t, const void* rdata, size_t size, AvahiLookupResultFlags,
           void* userdata) {
          // The daemon hands over the record's wire bytes, which are already the TXT record data.
          const auto* bytes = static_cast<const uint8_t*>(rdata);
          const QVData txt = bytes ? QVData(bytes, bytes + size) : QVData();
          static_cast<const Query*>(userdata)->browseEvent(event, interface, protocol, nullptr, nullptr,
                                                           nullptr, txt);
        },
        userdata);
  });
}

std::unique_ptr<QVDNSSDBackend::EntryGroup> QVDNSSDClientBackend::newEntryGroup(EntryGroupCallback callback,
                                                                                int& error) {
  auto group = std::make_unique<ClientEntryGroup>(std::move(callback));
  if (!group->create(client_.get())) {
    error = lastError();
    return nullptr;
  }
  return group;
}

std::string QVDNSSDClientBackend::hostName() {
  const char* name = client().avahi_client_get_host_name(client_.get());
  return name ? name : "";
}

int QVDNSSDClientBackend::lastError() {
  return client().avahi_client_errno(client_.get());
}
