// SPDX-License-Identifier: MIT
#pragma once
// What a connection of the local server needs of the manager that owns it. The manager hands one to its
// server, which holds it weakly: a connection whose manager is gone answers 500.

#include "Foundation/QVFileOperations.h"
#include "Foundation/QVTypes.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class QVHandoffDocumentInfo;

// As the manager declares it: how a saved-back upload replaces the original.
using QVHandoffMoveFileBlock =
    std::function<bool(const std::string& sourcePath, const std::string& destinationPath, QVError* error)>;

class QVHandoffServerContext {
public:
  using DocumentInfoList = std::vector<std::shared_ptr<QVHandoffDocumentInfo>>;

  virtual ~QVHandoffServerContext() = default;

  // On connection threads.
  // The documents open in the host, as an immutable snapshot.
  virtual std::shared_ptr<const DocumentInfoList> localDocumentsInfo() const = 0;
  virtual uint64_t currentLocalDocumentIndex() const = 0;
  virtual std::shared_ptr<QVHandoffDocumentInfo>
  localDocumentInfoForFilePath(const std::string& path) const = 0;
  // Through the host's copy, move and attributes blocks; the copy posts the will-handoff notification.
  virtual bool copyHandoffDocumentAtPath(const std::string& path, const std::string& toPath,
                                         QVError* error) = 0;
  // The host's move block: a save back hands it its upload unless it is the default one, which the
  // receiver replaces with an atomic move of its own.
  virtual QVHandoffMoveFileBlock moveFileBlock() const = 0;
  virtual std::optional<QVFileAttributes> attributesOfHandoffDocumentAtPath(const std::string& path,
                                                                            QVError* error) const = 0;

  // On the main thread only: the host reads the records and observes the notifications there.
  // Posts to the default center with the manager as the sender.
  virtual void postNotification(const char* name, QVUserInfo userInfo) = 0;
  virtual void postDidFailSaveBackRemoteDocumentNotificationForLocalFilePath(const std::string& path) = 0;
  // Where a peer keeps an edited copy of a local document; empty strings clear the marks.
  virtual void setRemoteMarks(QVHandoffDocumentInfo& documentInfo, const std::string& remoteDeviceName,
                              const std::string& remoteFilePath) = 0;
};
