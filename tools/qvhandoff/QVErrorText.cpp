// SPDX-License-Identifier: MIT
#include "QVErrorText.h"

#include "Network/HTTPClient/QVHTTPSessionManager.h"

#include <fmt/format.h>

#include <string_view>

std::string QVErrorText::sentence(const QVError& error, const std::string& action, const std::string& device,
                                  const std::string& address) {
  const std::string peer = address.empty() ? device : fmt::format("{} at {}", device, address);
  if (error.domain == QVURLErrorDomain) {
    switch (error.code) {
    case QVURLError::Cancelled:
      return fmt::format("could not {}: cancelled", action);
    case QVURLError::TimedOut:
      return fmt::format("could not {}: {} stopped answering", action, peer);
    case QVURLError::CannotFindHost:
      return fmt::format("could not {}: the address of {} is unknown", action, peer);
    case QVURLError::CannotConnectToHost:
      return fmt::format("could not connect to {}: connection refused", peer);
    case QVURLError::NetworkConnectionLost:
      return fmt::format("could not {}: the connection to {} was lost", action, peer);
    case QVURLError::BadServerResponse: {
      auto found = error.userInfo.find(QVHTTPStatusCodeErrorKey);
      const auto* status = found == error.userInfo.end() ? nullptr : std::get_if<int64_t>(&found->second);
      // The peer answers 500 for every refusal: a wrong key, a file it cannot read or write.
      if (status) return fmt::format("could not {}: {} refused it (HTTP status {})", action, peer, *status);
      return fmt::format("could not {}: {} sent an answer that makes no sense", action, peer);
    }
    default:
      return fmt::format("could not {}: the transfer with {} failed", action, peer);
    }
  }
  // The manager's own error: the answer did not decrypt, or the file could not be written or read here.
  return fmt::format("could not {}: the answer of {} was unreadable or the file could not be written "
                     "(run with -v for the reason)",
                     action, peer);
}

std::string QVErrorText::hostAndPort(const std::string& HTTPAddress) {
  std::string_view rest = HTTPAddress;
  if (const size_t scheme = rest.find("://"); scheme != std::string_view::npos)
    rest.remove_prefix(scheme + 3);
  if (const size_t slash = rest.find('/'); slash != std::string_view::npos) rest = rest.substr(0, slash);
  std::string_view host = rest;
  std::string_view port;
  if (const size_t colon = rest.rfind(':');
      colon != std::string_view::npos && rest.find(']', colon) == std::string_view::npos) {
    host = rest.substr(0, colon);
    port = rest.substr(colon + 1);
  }
  std::string resolved(host);
  if (auto address = QVHTTPSessionManager::addressForHost(resolved)) {
    resolved = address->find(':') != std::string::npos ? "[" + *address + "]" : *address;
  }
  return port.empty() ? resolved : fmt::format("{}:{}", resolved, port);
}
