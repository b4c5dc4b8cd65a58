// SPDX-License-Identifier: MIT
#include "Foundation/QVTypes.h"

#include <fmt/format.h>

namespace {
// 2001-01-01T00:00:00Z in Unix time.
constexpr double kReferenceDateUnixSeconds = 978307200.0;
} // namespace

std::string QVError::description() const {
  return fmt::format("Error Domain={} Code={}", domain, code);
}

double QVTimeIntervalSinceReferenceDate(QVDate date) {
  const auto sinceEpoch = std::chrono::duration<double>(date.time_since_epoch()).count();
  return sinceEpoch - kReferenceDateUnixSeconds;
}

QVDate QVDateWithTimeIntervalSinceReferenceDate(double seconds) {
  const std::chrono::duration<double> sinceEpoch(seconds + kReferenceDateUnixSeconds);
  return QVDate(std::chrono::duration_cast<QVDate::duration>(sinceEpoch));
}
