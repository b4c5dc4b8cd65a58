// SPDX-License-Identifier: MIT
#pragma once
// Keeps the meta data in the meta file at the top of the synced container folder: reads it, creates it
// when missing (master only), follows the changes other devices make to it and settles the conflict copies
// that sync clients leave beside it.

#include "Foundation/QVNotificationCenter.h"
#include "Foundation/QVTypes.h"
#include "QVHandoff/QVHandoffExport.h"
#include "QVHandoff/QVHandoffMetaStorage.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>

class QVFolderWatcher;

class QVHANDOFF_EXPORT QVHandoffDocumentMetaStorage : public QVHandoffMetaStorage {
  struct Passkey {};

public:
  /// A storage for the meta file in `containerPath`. It starts as soon as the container folder exists
  /// and has been tested, on the main queue.
  static std::shared_ptr<QVHandoffDocumentMetaStorage>
  storageWithContainerURL(const std::string& containerPath);

  QVHandoffDocumentMetaStorage(Passkey, std::string metaFileURL);
  ~QVHandoffDocumentMetaStorage() override;

  /// A master storage starts at once when the container has been tested.
  void setMaster(bool master) override;

  /// The meta file's path: the container folder joined with QVHandoffMetaFileName.
  const std::string& metaFileURL() const { return metaFileURL_; }
  /// The file's date when this storage last read or wrote it; none before that.
  std::optional<QVDate> savedMetaModificationDate() const;

  /// The service type and key a meta file's contents hold (XML or binary property list); none unless both
  /// are present and non-empty. `isDictionary` tells an unreadable file from one that lacks a value.
  struct MetaData {
    std::string serviceType;
    QVData AES256Key;
  };
  /// Parses `contents` into MetaData as described above.
  static std::optional<MetaData> metaDataFromContents(const std::string& contents,
                                                      bool* isDictionary = nullptr);

  /// Takes service type and key from the file and tells the delegate; false (logged) when the file is
  /// missing, unreadable or lacks either.
  bool readMetaData();
  /// Writes service type and key to the file atomically, as an XML property list, and tells the delegate;
  /// false (logged) when either is empty or the write fails.
  bool writeMetaData();
  /// The file's modification date on disk now; none (logged) when it cannot be read.
  std::optional<QVDate> metaModificationDate() const;
  /// Reads the file again unless its date is the one this storage last read or wrote.
  void handleMetaDataFileChange();
  /// Reads the file; a master storage that cannot makes and writes new meta data.
  void ensureMetaDataFilePresented();
  /// The library path of the cloud platform; a synced folder never takes it.
  bool iCloudStorage() const { return false; }

  /// The container folder exists: the file is read (or made) once the availability test has ended, at once
  /// when it has.
  void handleiCloudConfigured();
  /// The availability test ended: reads the meta file, or makes and writes new meta data when master.
  void handleiCloudTested();
  /// The container's account state changed: once it is available, starts on the main thread as
  /// handleiCloudConfigured() does.
  void iCloudAccountStateDidChangeNotification();

  /// Follows the meta file's folder while the file exists; events arrive on the watcher's thread.
  void startObservingMetaFileChanges();
  /// Stops following the folder; a change being handled finishes first.
  void stopObservingMetaFileChanges();
  /// The newest of the meta file and its conflict copies becomes the meta file; the other copies go.
  void resolveConflictsIfNeeded();

  /// File presenter.
  const std::string& presentedItemURL() const { return metaFileURL_; }
  /// The meta file changed: handleMetaDataFileChange().
  void presentedItemDidChange();
  /// A conflict copy appeared beside it: resolveConflictsIfNeeded().
  void presentedItemDidGainVersion();

private:
  void startUp();
  std::weak_ptr<QVHandoffDocumentMetaStorage> weakSelf();
  void metaFolderFileDidChange(const std::string& name);

  const std::string metaFileURL_;
  /// Serialises the file work of the main thread and the watcher's thread, so that a change is read once.
  /// Recursive: a conflict resolution or a change handler goes on into a read.
  mutable std::recursive_mutex fileMutex_;
  std::optional<QVDate> savedMetaModificationDate_;
  /// The file as last read or written, for when another device's file has the same date.
  std::string savedMetaContents_;

  std::mutex observationMutex_;
  QVNotificationObservation accountStateObservation_;
  QVNotificationObservation testedObservation_;
  std::mutex watcherMutex_;
  std::unique_ptr<QVFolderWatcher> watcher_;
};
