// SPDX-License-Identifier: MIT
#pragma once
// A failed transfer as one line a user can act on: what was tried, with whom, at which address, and what
// went wrong, in words rather than an error domain and code.

#include "Foundation/QVTypes.h"

#include <string>

class QVErrorText {
public:
  // `action` reads "hand off Report.pdf" or "save back Report.pdf"; `address` is "10.1.2.3:4567" (or the
  // peer's host name and port, or empty when it was never resolved).
  static std::string sentence(const QVError& error, const std::string& action, const std::string& device,
                              const std::string& address);
  // "host:port" of an "http://host:port" address, the host replaced by the address it resolved to.
  static std::string hostAndPort(const std::string& HTTPAddress);
};
