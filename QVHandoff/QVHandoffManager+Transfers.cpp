#include "Foundation/QVLog.h"
#include "Foundation/QVMainQueue.h"
#include "Foundation/QVNotificationCenter.h"
#include "QVHandoff/QVHandoffManager.h"

QV_LOG_SOURCE("QVHandoff/QVHandoffManager")

void QVHandoffManager::postDidFailSaveBackRemoteDocumentNotificationForLocalFilePath(
    const std::string& path) {
  if (path.empty()) {
    QV_LOG_ERROR("Couldn't post did fail save back remote document notification");
    return;
  }
  performOnMainThreadSynchronouslyIfPossible([&] {
    QVNotificationCenter::defaultCenter().post(QVHandoffManagerDidFailSaveBackRemoteDocumentNotification,
                                               this, {{QVHandoffManagerOriginalFilePathKey, path}});
  });
}
