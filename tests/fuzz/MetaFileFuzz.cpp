// SPDX-License-Identifier: MIT
// The meta file, as a sync client may deliver it from another device: XML or binary property list.
#include "QVFuzzSupport.h"
#include "QVHandoff/QVHandoffDocumentMetaStorage.h"

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int quiet = QVFuzzQuietLog();
  (void)quiet;
  bool isDictionary = false;
  const auto metaData = QVHandoffDocumentMetaStorage::metaDataFromContents(
      std::string(reinterpret_cast<const char*>(data), size), &isDictionary);
  if (metaData && (!isDictionary || metaData->serviceType.empty() || metaData->AES256Key.empty())) abort();
  return 0;
}
