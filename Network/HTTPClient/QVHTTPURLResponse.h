// SPDX-License-Identifier: MIT
#pragma once
// The head of an HTTP response: status and header fields, looked up without regard to case.

#include "Network/HTTPClient/QVHTTPHeaderFields.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

class QVHTTPURLResponse {
public:
  QVHTTPURLResponse(std::string URL, int64_t statusCode, QVHTTPHeaderFields headerFields)
      : URL_(std::move(URL)), statusCode_(statusCode), headerFields_(std::move(headerFields)) {}

  const std::string& URL() const { return URL_; }
  int64_t statusCode() const { return statusCode_; }
  // A field sent several times holds its values joined by ", ".
  const QVHTTPHeaderFields& allHeaderFields() const { return headerFields_; }
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const {
    return QVHeaderFieldValue(headerFields_, field);
  }

private:
  std::string URL_;
  int64_t statusCode_ = 0;
  QVHTTPHeaderFields headerFields_;
};
