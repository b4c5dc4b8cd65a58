// SPDX-License-Identifier: MIT
// The date and number text of messages, TXT records and save-back queries.
#include "QVFuzzSupport.h"
#include "QVHandoff/QVHandoffMessageCodec.h"

#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int quiet = QVFuzzQuietLog();
  (void)quiet;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (const auto date = QVHandoffMessageCodec::dateFormatter().dateFromString(text)) {
    // Whatever date was read is written in the one form, which reads back as itself.
    const auto written = QVHandoffMessageCodec::dateFormatter().stringFromDate(*date);
    const auto reread = QVHandoffMessageCodec::dateFormatter().dateFromString(written);
    if (!reread || QVHandoffMessageCodec::dateFormatter().stringFromDate(*reread) != written) abort();
  }
  if (const auto number = QVHandoffMessageCodec::numberFormatter().numberFromString(text)) {
    const auto written = QVHandoffMessageCodec::numberFormatter().stringFromNumber(*number);
    if (QVHandoffMessageCodec::numberFormatter().numberFromString(written) != number) abort();
  }
  return 0;
}
