// SPDX-License-Identifier: MIT
#pragma once
// Value types shared by the framework and the platform layer.

#include "QVHandoff/QVHandoffExport.h"
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

class QVHandoffDocumentInfo;

/// Bytes: keys, message bodies, TXT records.
using QVData = std::vector<uint8_t>;
/// A point in time, as the system clock keeps it.
using QVDate = std::chrono::system_clock::time_point;

/// A point on a document's page, in page coordinates.
struct QVHANDOFF_EXPORT QVPoint {
  double x = 0;
  double y = 0;
  friend bool operator==(const QVPoint&, const QVPoint&) = default;
};

/// A notification or error userInfo value.
using QVValue = std::variant<std::string, bool, int64_t, uint64_t, float, double, QVDate, QVPoint,
                             std::shared_ptr<QVHandoffDocumentInfo>>;
using QVUserInfo = std::map<std::string, QVValue>;

/// The exported key of an error's HTTP status, for transport errors with code -1011.
inline constexpr const char* QVHTTPStatusCodeErrorKey = "QVHTTPStatusCodeErrorKey";
/// The domain of the HTTP client's transport errors (codes in QVURLError).
inline constexpr const char* QVURLErrorDomain = "QVURLErrorDomain";

struct QVHANDOFF_EXPORT QVError {
  std::string domain;
  int64_t code = 0;
  QVUserInfo userInfo;

  /// For logs: "Error Domain=<domain> Code=<code>"; the userInfo is left out.
  std::string description() const;
  /// Equal by domain and code; the userInfo does not count.
  friend bool operator==(const QVError& a, const QVError& b) {
    return a.domain == b.domain && a.code == b.code;
  }
};

/// Well-known transport error codes (domain QVURLErrorDomain).
namespace QVURLError {
inline constexpr int64_t Cancelled = -999;
inline constexpr int64_t TimedOut = -1001;
inline constexpr int64_t CannotFindHost = -1003;
inline constexpr int64_t CannotConnectToHost = -1004;
inline constexpr int64_t NetworkConnectionLost = -1005;
inline constexpr int64_t BadServerResponse = -1011;
} // namespace QVURLError

/// Seconds since 2001-01-01 00:00:00 UTC, the reference date of progress bookkeeping.
QVHANDOFF_EXPORT double QVTimeIntervalSinceReferenceDate(QVDate date);
/// The inverse: the date `seconds` after the reference date.
QVHANDOFF_EXPORT QVDate QVDateWithTimeIntervalSinceReferenceDate(double seconds);
