// SPDX-License-Identifier: MIT
// The mark-as-modified and force-save-back request bodies, as the server reads them.
#include "QVFuzzSupport.h"
#include "QVHandoff/QVHandoffRequestValues.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int quiet = QVFuzzQuietLog();
  (void)quiet;
  const auto wire = QVFuzzWireBytes(data, size);
  if (!wire) return 0;
  const auto request = QVHandoffRequestValues::markAsModifiedRequestFromData(*wire, QVFuzzKey());
  const auto path = QVHandoffRequestValues::forceRemoteSaveBackFilePathFromData(*wire, QVFuzzKey());
  // Both read "filePath" the same way.
  if (request && (!path || *path != request->filePath)) abort();
  return 0;
}
