// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffRequests.h"

#include "QVHandoff/QVHandoffManager.h"
#include "QVHandoff/QVHandoffMessageCodec.h"
#include "QVHandoff/QVHandoffServerInfo.h"

#include <fmt/format.h>

#include <cctype>

namespace QVHandoffRequests {

std::optional<QVURLRequest> JSONRequest(const QVHandoffServerInfo& serverInfo, const char* path,
                                        const nlohmann::json& object) {
  auto body = serverInfo.AES256EncryptedDataWithJSONObject(object);
  if (!body) return std::nullopt;
  QVURLRequest request(serverInfo.HTTPAddress() + path, "POST");
  request.setHTTPBody(std::move(*body));
  QVHandoffManager::setContentType(QVHandoffJSONContentType, request);
  return request;
}

std::string percentEncodedQueryValue(std::string_view text) {
  // Slash, "?", "&", "=", ":" and "#" stay as they are, so a value holding "&" or "#" breaks the query;
  // peers have always read it this way.
  static constexpr std::string_view kAllowed = "!$&'()*+,-./:;=?@_~#";
  std::string encoded;
  encoded.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80 && (std::isalnum(byte) || kAllowed.find(c) != std::string_view::npos)) {
      encoded += c;
    } else {
      encoded += fmt::format("%{:02X}", byte);
    }
  }
  return encoded;
}

std::string pointText(QVPoint point) {
  return fmt::format("{{{}, {}}}", point.x, point.y);
}

std::string dateText(const std::optional<QVDate>& date) {
  return date ? QVHandoffMessageCodec::dateFormatter().stringFromDate(*date) : std::string();
}

bool isCancellation(const std::optional<QVError>& error) {
  return error && error->domain == QVURLErrorDomain && error->code == QVURLError::Cancelled;
}

} // namespace QVHandoffRequests
