// SPDX-License-Identifier: MIT
#pragma once
// Owning handles for Avahi's C objects and the TXT conversions both engines need. Private to the
// Network/DNSSD sources: no public header includes it.

#include "Foundation/QVCFree.h"
#include "Foundation/QVTypes.h"

#include <avahi-common/address.h>
#include <avahi-common/malloc.h>
#include <avahi-common/strlst.h>
#include <avahi-common/thread-watch.h>

#include <memory>
#include <string>

using QVAvahiThreadedPoll = std::unique_ptr<AvahiThreadedPoll, QVCFree<&avahi_threaded_poll_free>>;
using QVAvahiStringList = std::unique_ptr<AvahiStringList, QVCFree<&avahi_string_list_free>>;
using QVAvahiString = std::unique_ptr<char, QVCFree<&avahi_free>>;

// TXT record wire bytes (length-prefixed strings) to a string list in the same order; empty or malformed
// data gives no list.
QVAvahiStringList QVAvahiStringListFromTXTData(const QVData& data);
QVData QVTXTDataFromAvahiStringList(AvahiStringList* list);

std::string QVAvahiErrorText(int error);

// The two engine libraries are loaded privately (RTLD_LOCAL) and called through function tables: both
// export avahi_entry_group_free with different meanings, and whichever sits in the process's global scope
// captures the other's internal calls. Only avahi-common is linked. None (with the reason in `failure`)
// when the library is missing or lacks a function.
void* QVAvahiOpenLibrary(const char* soname, std::string& failure);
bool QVAvahiResolveSymbol(void* library, const char* name, void*& symbol, std::string& failure);

template <class Function>
bool QVAvahiResolve(void* library, const char* name, Function& function, std::string& failure) {
  void* symbol = nullptr;
  if (!QVAvahiResolveSymbol(library, name, symbol, failure)) return false;
  function = reinterpret_cast<Function>(symbol);
  return true;
}

// "Name._type._tcp.local" with the name's dots and backslashes escaped; empty when it does not fit.
std::string QVAvahiFullServiceName(const std::string& name, const std::string& type,
                                   const std::string& domain);
// Dotted or colon text of an address.
std::string QVAvahiAddressText(const AvahiAddress* address);
