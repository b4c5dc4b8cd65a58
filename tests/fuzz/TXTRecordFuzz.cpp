// SPDX-License-Identifier: MIT
// A TXT record as anyone on the network may announce it.
#include "Network/DNSSD/QVNetService.h"
#include "QVFuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int quiet = QVFuzzQuietLog();
  (void)quiet;
  const auto dictionary = QVNetService::dictionaryFromTXTRecordData(QVData(data, data + size));
  // A dictionary that can be written must read back the same.
  if (const auto written = QVNetService::dataFromTXTRecordDictionary(dictionary)) {
    if (QVNetService::dictionaryFromTXTRecordData(*written) != dictionary) abort();
  }
  return 0;
}
