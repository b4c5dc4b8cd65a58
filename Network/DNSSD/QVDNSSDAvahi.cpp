// SPDX-License-Identifier: MIT
#include "Network/DNSSD/QVDNSSDAvahi.h"

#include <avahi-common/domain.h>
#include <avahi-common/error.h>

#include <fmt/format.h>

#include <dlfcn.h>

QVAvahiStringList QVAvahiStringListFromTXTData(const QVData& data) {
  if (data.empty()) return nullptr;
  AvahiStringList* list = nullptr;
  if (avahi_string_list_parse(data.data(), data.size(), &list) < 0) return nullptr;
  return QVAvahiStringList(list);
}

QVData QVTXTDataFromAvahiStringList(AvahiStringList* list) {
  QVData data(avahi_string_list_serialize(list, nullptr, 0));
  if (!data.empty()) data.resize(avahi_string_list_serialize(list, data.data(), data.size()));
  return data;
}

std::string QVAvahiErrorText(int error) {
  return fmt::format("{}: {}", error, avahi_strerror(error));
}

std::string QVAvahiFullServiceName(const std::string& name, const std::string& type,
                                   const std::string& domain) {
  char fullName[AVAHI_DOMAIN_NAME_MAX];
  if (avahi_service_name_join(fullName, sizeof fullName, name.c_str(), type.c_str(), domain.c_str()) < 0)
    return {};
  return fullName;
}

std::string QVAvahiAddressText(const AvahiAddress* address) {
  char text[AVAHI_ADDRESS_STR_MAX];
  if (!address || !avahi_address_snprint(text, sizeof text, address)) return {};
  return text;
}

void* QVAvahiOpenLibrary(const char* soname, std::string& failure) {
  void* library = dlopen(soname, RTLD_NOW | RTLD_LOCAL);
  if (!library) failure = dlerror();
  return library;
}

bool QVAvahiResolveSymbol(void* library, const char* name, void*& symbol, std::string& failure) {
  symbol = dlsym(library, name);
  if (!symbol) failure = fmt::format("{} has no {}", "Avahi library", name);
  return symbol != nullptr;
}
