// SPDX-License-Identifier: MIT
// A peer's tabs list, as the registry reads it into the peer's record: decrypt, a JSON list, an entry each.
#include "QVFuzzSupport.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffPeerRegistry.h"
#include "QVHandoff/QVHandoffServerInfo.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int quiet = QVFuzzQuietLog();
  (void)quiet;
  const auto wire = QVFuzzWireBytes(data, size);
  if (!wire) return 0;
  auto serverInfo = QVHandoffServerInfo::make();
  serverInfo->setAES256Key(QVFuzzKey());
  // Twice: the second list is compared with the first one's active document.
  for (int round = 0; round < 2; ++round) {
    if (!QVHandoffPeerRegistry::takeInTabsListData(*wire, serverInfo)) return 0;
    const auto& documentsInfo = serverInfo->documentsInfo();
    const uint64_t index = serverInfo->currentDocumentIndex();
    if (index != QVNotFound && index >= documentsInfo.size()) abort();
  }
  return 0;
}
