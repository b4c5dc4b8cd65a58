// SPDX-License-Identifier: MIT
// The encrypted message envelope: decrypt, then JSON, as every request and answer body is read.
#include "QVFuzzSupport.h"
#include "QVHandoff/QVHandoffMessageCodec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int quiet = QVFuzzQuietLog();
  (void)quiet;
  const auto wire = QVFuzzWireBytes(data, size);
  if (!wire) return 0;
  if (const auto object = QVHandoffMessageCodec::JSONObjectFromData(*wire, QVFuzzKey())) {
    // What was read must survive being written again.
    const auto again = QVHandoffMessageCodec::dataFromJSONObject(*object, QVFuzzKey());
    if (!again) abort();
  }
  QVHandoffMessageCodec::isSuccessResponseData(*wire, QVFuzzKey());
  return 0;
}
