// SPDX-License-Identifier: MIT
// The save back's request URI: the query string into its pairs, then each value as the receiver reads it.
#include "Network/HTTPServer/QVHTTPConnection.h"
#include "QVFuzzSupport.h"
#include "QVHandoff/QVHandoffMessageCodec.h"
#include "QVHandoff/QVHandoffRequestValues.h"

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int quiet = QVFuzzQuietLog();
  (void)quiet;
  const std::string URI(reinterpret_cast<const char*>(data), size);
  const auto params = QVHTTPConnection::paramsFromRequestURI(URI);
  for (const auto& [key, value] : params) {
    // A pair that decodes to a NUL byte must have been left out: a path would be cut at it.
    if (key.find('\0') != std::string::npos || value.find('\0') != std::string::npos) abort();
    QVHandoffRequestValues::numberFromQueryValue(value);
    QVHandoffRequestValues::pointFromQueryValue(value);
    QVHandoffMessageCodec::dateFormatter().dateFromString(value);
  }
  return 0;
}
