// SPDX-License-Identifier: MIT
#include "Network/DNSSD/QVDNSSDCoreBackend.h"

#include "Foundation/QVLog.h"

#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-core/log.h>
#include <avahi-core/lookup.h>
#include <avahi-core/publish.h>

#include <mutex>

QV_LOG_SOURCE("DNSSD/QVDNSSDCoreBackend")

namespace {

constexpr const char* kLibrary = "libavahi-core.so.7";
constexpr AvahiPublishFlags kPublishFlags = AVAHI_PUBLISH_NO_COOKIE; // no TXT entry of our own making

#define QV_AVAHI_CORE_FUNCTIONS(X)                                                                           \
  X(avahi_server_config_init)                                                                                \
  X(avahi_server_config_free)                                                                                \
  X(avahi_server_new)                                                                                        \
  X(avahi_server_free)                                                                                       \
  X(avahi_server_get_host_name)                                                                              \
  X(avahi_server_set_host_name)                                                                              \
  X(avahi_server_errno)                                                                                      \
  X(avahi_s_entry_group_new)                                                                                 \
  X(avahi_s_entry_group_free)                                                                                \
  X(avahi_s_entry_group_commit)                                                                              \
  X(avahi_s_entry_group_reset)                                                                               \
  X(avahi_server_add_service_strlst)                                                                         \
  X(avahi_server_update_service_txt_strlst)                                                                  \
  X(avahi_s_service_browser_new)                                                                             \
  X(avahi_s_service_browser_free)                                                                            \
  X(avahi_s_service_resolver_new)                                                                            \
  X(avahi_s_service_resolver_free)                                                                           \
  X(avahi_s_record_browser_new)                                                                              \
  X(avahi_s_record_browser_free)                                                                             \
  X(avahi_key_new)                                                                                           \
  X(avahi_key_unref)                                                                                         \
  X(avahi_set_log_function)

struct CoreAPI {
#define QV_AVAHI_DECLARE(name) decltype(&::name) name = nullptr;
  QV_AVAHI_CORE_FUNCTIONS(QV_AVAHI_DECLARE)
#undef QV_AVAHI_DECLARE
};

// The stack's own lines go to our log instead of stderr, which belongs to the host.
void logAvahiLine(AvahiLogLevel level, const char* text) {
  if (level <= AVAHI_LOG_WARN) {
    QV_LOG_WARN("{}", text);
  } else {
    QV_LOG_DEBUG("{}", text);
  }
}

// At exit the loggers may already be gone when the stack says goodbye.
void discardAvahiLine(AvahiLogLevel, const char*) {}

// Loaded once and never unloaded: engines and their callbacks may outlive any one user.
const CoreAPI* loadCore(std::string& failure) {
  static std::mutex mutex;
  static const CoreAPI* loaded = nullptr;
  std::lock_guard lock(mutex);
  if (loaded) return loaded;
  void* library = QVAvahiOpenLibrary(kLibrary, failure);
  if (!library) return nullptr;
  auto api = std::make_unique<CoreAPI>();
  bool ok = true;
#define QV_AVAHI_LOAD(name) ok = ok && QVAvahiResolve(library, #name, api->name, failure);
  QV_AVAHI_CORE_FUNCTIONS(QV_AVAHI_LOAD)
#undef QV_AVAHI_LOAD
  if (!ok) return nullptr;
  api->avahi_set_log_function(&logAvahiLine);
  loaded = api.release(); // kept until the process ends, like the library
  return loaded;
}

// Only reached once an engine exists, hence once loadCore() succeeded.
const CoreAPI& core() {
  std::string unused;
  return *loadCore(unused);
}

// Deleters for QVCFree, through the loaded table.
struct CoreFree {
  static void serverConfig(AvahiServerConfig* config) { core().avahi_server_config_free(config); }
  static void key(AvahiKey* key) { core().avahi_key_unref(key); }
  static void entryGroup(AvahiSEntryGroup* group) { core().avahi_s_entry_group_free(group); }
  static void serviceBrowser(AvahiSServiceBrowser* browser) { core().avahi_s_service_browser_free(browser); }
  static void serviceResolver(AvahiSServiceResolver* resolver) {
    core().avahi_s_service_resolver_free(resolver);
  }
  static void recordBrowser(AvahiSRecordBrowser* browser) { core().avahi_s_record_browser_free(browser); }
};

using QVAvahiServerConfig = std::unique_ptr<AvahiServerConfig, QVCFree<&CoreFree::serverConfig>>;
using QVAvahiKey = std::unique_ptr<AvahiKey, QVCFree<&CoreFree::key>>;

using CoreServiceBrowser = QVDNSSDAvahiQuery<AvahiSServiceBrowser, &CoreFree::serviceBrowser>;
using CoreServiceResolver = QVDNSSDAvahiQuery<AvahiSServiceResolver, &CoreFree::serviceResolver>;
using CoreRecordBrowser = QVDNSSDAvahiQuery<AvahiSRecordBrowser, &CoreFree::recordBrowser>;

class CoreEntryGroup final : public QVDNSSDBackend::EntryGroup {
public:
  CoreEntryGroup(AvahiServer* server, QVDNSSDBackend::EntryGroupCallback callback)
      : server_(server), callback_(std::move(callback)) {}

  bool create() {
    group_.reset(core().avahi_s_entry_group_new(server_, &CoreEntryGroup::stateChanged, this));
    return group_ != nullptr;
  }

  int addService(const std::string& name, const std::string& type, const std::string& domain, uint16_t port,
                 AvahiStringList* txt) override {
    return core().avahi_server_add_service_strlst(server_, group_.get(), AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                                  kPublishFlags, name.c_str(), type.c_str(), domain.c_str(),
                                                  nullptr, port, txt);
  }

  int updateServiceTXT(const std::string& name, const std::string& type, const std::string& domain,
                       AvahiStringList* txt) override {
    return core().avahi_server_update_service_txt_strlst(server_, group_.get(), AVAHI_IF_UNSPEC,
                                                         AVAHI_PROTO_UNSPEC, kPublishFlags, name.c_str(),
                                                         type.c_str(), domain.c_str(), txt);
  }

  int commit() override { return core().avahi_s_entry_group_commit(group_.get()); }
  void reset() override { core().avahi_s_entry_group_reset(group_.get()); }

private:
  static void stateChanged(AvahiServer*, AvahiSEntryGroup*, AvahiEntryGroupState state, void* userdata) {
    static_cast<CoreEntryGroup*>(userdata)->callback_(state);
  }

  AvahiServer* server_;
  QVDNSSDBackend::EntryGroupCallback callback_;
  std::unique_ptr<AvahiSEntryGroup, QVCFree<&CoreFree::entryGroup>> group_;
};

} // namespace

void QVDNSSDCoreFreeServer(AvahiServer* server) {
  core().avahi_server_free(server);
}

std::shared_ptr<QVDNSSDCoreBackend> QVDNSSDCoreBackend::make(const QVDNSSDConfiguration& configuration,
                                                             int& error) {
  std::string failure;
  const CoreAPI* api = loadCore(failure);
  if (!api) {
    QV_LOG_ERROR("Couldn't load the embedded DNS-SD stack ({})", failure);
    error = AVAHI_ERR_NOT_SUPPORTED;
    return nullptr;
  }
  std::shared_ptr<QVDNSSDCoreBackend> backend(new QVDNSSDCoreBackend());
  if (!backend->pollAPI()) {
    error = AVAHI_ERR_NO_MEMORY;
    return nullptr;
  }
  AvahiServerConfig config;
  const QVAvahiServerConfig configGuard(api->avahi_server_config_init(&config));
  if (!configGuard) {
    error = AVAHI_ERR_NO_MEMORY;
    return nullptr;
  }
  if (!configuration.hostName.empty()) config.host_name = avahi_strdup(configuration.hostName.c_str());
  for (const std::string& interface : configuration.interfaces) {
    config.allow_interfaces = avahi_string_list_add(config.allow_interfaces, interface.c_str());
  }
  // Peers are reached over IPv4 only; nothing is announced beyond the host's address records.
  config.use_ipv4 = 1;
  config.use_ipv6 = 0;
  config.publish_aaaa_on_ipv4 = 0;
  config.publish_hinfo = 0;
  config.publish_workstation = 0;
  config.publish_domain = 0;
  config.enable_wide_area = 0;
  // Other stacks (a second copy of this library, a daemon started later) share the port.
  config.disallow_other_stacks = 0;

  backend->server_.reset(api->avahi_server_new(
      backend->pollAPI(), &config, &QVDNSSDCoreBackend::serverStateChanged, backend.get(), &error));
  if (!backend->server_) return nullptr;
  error = backend->startPollThread();
  if (error != AVAHI_OK) return nullptr;
  QV_LOG_INFO("Embedded DNS-SD stack started as \"{}\"", backend->hostName());
  return backend;
}

QVDNSSDCoreBackend::~QVDNSSDCoreBackend() {
  {
    // With the lock held the poll thread is not inside a callback that logs.
    std::lock_guard lock(*this);
    core().avahi_set_log_function(&discardAvahiLine);
  }
  stopPollThread();
}

void QVDNSSDCoreBackend::serverStateChanged(AvahiServer* server, AvahiServerState state, void* userdata) {
  auto* self = static_cast<QVDNSSDCoreBackend*>(userdata);
  switch (state) {
  case AVAHI_SERVER_RUNNING:
    self->engineStateChanged(true);
    break;
  case AVAHI_SERVER_COLLISION: {
    // Another host holds our name: withdraw, claim the next name, and publish again once it holds.
    self->engineStateChanged(false);
    const QVAvahiString alternative(avahi_alternative_host_name(core().avahi_server_get_host_name(server)));
    QV_LOG_INFO("Host name collision, renaming to \"{}\"", alternative.get());
    const int error = core().avahi_server_set_host_name(server, alternative.get());
    if (error < 0) {
      QV_LOG_ERROR("Couldn't rename the host to \"{}\" ({})", alternative.get(), QVAvahiErrorText(error));
    }
    break;
  }
  case AVAHI_SERVER_REGISTERING:
    self->engineStateChanged(false);
    break;
  case AVAHI_SERVER_FAILURE: {
    const int error = core().avahi_server_errno(server);
    QV_LOG_ERROR("Embedded DNS-SD stack failed ({})", QVAvahiErrorText(error));
    self->engineFailed(error);
    break;
  }
  case AVAHI_SERVER_INVALID:
    break;
  }
}

std::unique_ptr<QVDNSSDBackend::Query> QVDNSSDCoreBackend::browseServices(const std::string& type,
                                                                          const std::string& domain,
                                                                          Callback callback, int& error) {
  return startQuery<CoreServiceBrowser>(std::move(callback), error, [&](void* userdata) {
    return core().avahi_s_service_browser_new(server_.get(), AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                              type.c_str(), domain.c_str(), AvahiLookupFlags(0),
                                              &serviceBrowsed<AvahiSServiceBrowser>, userdata);
  });
}

std::unique_ptr<QVDNSSDBackend::Query> QVDNSSDCoreBackend::resolveService(const std::string& name,
                                                                          const std::string& type,
                                                                          const std::string& domain,
                                                                          Callback callback, int& error) {
  return startQuery<CoreServiceResolver>(std::move(callback), error, [&](void* userdata) {
    return core().avahi_s_service_resolver_new(
        server_.get(), AVAHI_IF_UNSPEC, AVAHI_PROTO_INET, name.c_str(), type.c_str(), domain.c_str(),
        AVAHI_PROTO_INET, AvahiLookupFlags(0), &serviceResolved<AvahiSServiceResolver>, userdata);
  });
}

std::unique_ptr<QVDNSSDBackend::Query> QVDNSSDCoreBackend::browseTXTRecord(const std::string& name,
                                                                           const std::string& type,
                                                                           const std::string& domain,
                                                                           Callback callback, int& error) {
  const std::string fullName = QVAvahiFullServiceName(name, type, domain);
  const QVAvahiKey key(fullName.empty()
                           ? nullptr
                           : core().avahi_key_new(fullName.c_str(), AVAHI_DNS_CLASS_IN, AVAHI_DNS_TYPE_TXT));
  if (!key) {
    error = AVAHI_ERR_INVALID_SERVICE_NAME;
    return nullptr;
  }
  return startQuery<CoreRecordBrowser>(std::move(callback), error, [&](void* userdata) {
    return core().avahi_s_record_browser_new(
        server_.get(), AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, key.get(), AVAHI_LOOKUP_USE_MULTICAST,
        [](AvahiSRecordBrowser*, AvahiIfIndex interface, AvahiProtocol protocol, AvahiBrowserEvent event,
           AvahiRecord* record, AvahiLookupResultFlags, void* userdata) {
          const QVData txt = record ? QVTXTDataFromAvahiStringList(record->data.txt.string_list) : QVData();
          static_cast<const Query*>(userdata)->browseEvent(event, interface, protocol, nullptr, nullptr,
                                                           nullptr, txt);
        },
        userdata);
  });
}

std::unique_ptr<QVDNSSDBackend::EntryGroup> QVDNSSDCoreBackend::newEntryGroup(EntryGroupCallback callback,
                                                                              int& error) {
  auto group = std::make_unique<CoreEntryGroup>(server_.get(), std::move(callback));
  if (!group->create()) {
    error = lastError();
    return nullptr;
  }
  return group;
}

std::string QVDNSSDCoreBackend::hostName() {
  const char* name = core().avahi_server_get_host_name(server_.get());
  return name ? name : "";
}

int QVDNSSDCoreBackend::lastError() {
  return core().avahi_server_errno(server_.get());
}
