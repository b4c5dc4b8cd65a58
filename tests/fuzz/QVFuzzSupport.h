// SPDX-License-Identifier: MIT
#pragma once
// What every fuzz target shares: a fixed key, so that bytes encrypted under it get past the cipher to the
// JSON and field checks behind it, and a quiet log.

#include "Foundation/QVTypes.h"
#include "QVHandoff/QVHandoffAES256Data.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>

inline const QVData& QVFuzzKey() {
  static const QVData key(32, 0x5a);
  return key;
}

// The first byte chooses: even, the rest is taken as it arrived on the wire; odd, the rest is the plain
// text and is encrypted under the fixed key first.
inline std::optional<QVData> QVFuzzWireBytes(const uint8_t* data, size_t size) {
  if (size == 0) return std::nullopt;
  QVData rest(data + 1, data + size);
  if ((data[0] & 1) == 0) return rest;
  return QVHandoffAES256Data::encryptWithKeyData(rest, QVFuzzKey());
}

// Log lines would only slow the fuzzer down.
inline int QVFuzzQuietLog() {
  setenv("QVHANDOFF_LOG_LEVEL", "off", 1);
  return 0;
}
