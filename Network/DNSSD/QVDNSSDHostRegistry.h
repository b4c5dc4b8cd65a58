// SPDX-License-Identifier: MIT
#pragma once
// Where each resolved host name points. ".local" names do not resolve through the system resolver without
// an mDNS module, so the HTTP client asks here (and hands the answer to curl as a pinned address).

#include <map>
#include <optional>
#include <string>

class QVDNSSDHostRegistry {
public:
  // Names are compared without case and without one trailing dot.
  static void setAddress(const std::string& hostName, const std::string& address);
  static std::optional<std::string> address(const std::string& hostName);
  static void removeAddress(const std::string& hostName);
  static std::map<std::string, std::string> entries();
  static void removeAll();

  static std::string normalizedHostName(const std::string& hostName);
};
