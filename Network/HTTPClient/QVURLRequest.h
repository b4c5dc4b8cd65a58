// SPDX-License-Identifier: MIT
#pragma once
// What a data task sends: URL, method, header fields and a body, given whole or pulled piece by piece.

#include "Foundation/QVTypes.h"
#include "Network/HTTPClient/QVHTTPHeaderFields.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

class QVURLRequest {
public:
  // A body of unknown length: fills at most `capacity` bytes and returns how many; 0 ends the body.
  // Called on the session's thread, one call at a time; such a body is sent chunked.
  using BodyStream = std::function<size_t(uint8_t* buffer, size_t capacity)>;

  // Seconds without a byte moving in either direction before the task fails with -1001.
  static constexpr double defaultTimeoutInterval = 60.0;

  QVURLRequest() = default;
  explicit QVURLRequest(std::string URL, std::string method = "GET")
      : URL_(std::move(URL)), HTTPMethod_(std::move(method)) {}

  const std::string& URL() const { return URL_; }
  void setURL(std::string URL) { URL_ = std::move(URL); }

  // "GET" unless set.
  const std::string& HTTPMethod() const { return HTTPMethod_; }
  void setHTTPMethod(std::string method) { HTTPMethod_ = std::move(method); }

  const QVHTTPHeaderFields& allHTTPHeaderFields() const { return headerFields_; }
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const {
    return QVHeaderFieldValue(headerFields_, field);
  }
  // Replaces any value of the field, whatever the case of its name.
  void setValue(std::string value, std::string_view HTTPHeaderField);

  // Setting one kind of body drops the other.
  const QVData& HTTPBody() const { return HTTPBody_; }
  void setHTTPBody(QVData body);
  const BodyStream& HTTPBodyStream() const { return HTTPBodyStream_; }
  void setHTTPBodyStream(BodyStream stream);

  double timeoutInterval() const { return timeoutInterval_; }
  void setTimeoutInterval(double seconds) { timeoutInterval_ = seconds; }

private:
  std::string URL_;
  std::string HTTPMethod_ = "GET";
  QVHTTPHeaderFields headerFields_;
  QVData HTTPBody_;
  BodyStream HTTPBodyStream_;
  double timeoutInterval_ = defaultTimeoutInterval;
};
