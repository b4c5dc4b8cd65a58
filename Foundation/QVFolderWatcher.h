// SPDX-License-Identifier: MIT
#pragma once
// Watches one folder that a sync client may create, remove or replace at any time: reports when it comes,
// goes or changes writability, and which files in it were written, replaced or touched. Events arrive on
// the watcher's own thread, in the order the kernel reported them.

#include <functional>
#include <memory>
#include <string>
#include <thread>

struct QVFolderState {
  bool exists = false;
  bool writable = false;
  friend bool operator==(const QVFolderState&, const QVFolderState&) = default;
};

class QVFolderWatcher {
public:
  struct Callbacks {
    std::function<void(QVFolderState state)> folderStateChanged;
    // A file in the folder was written, moved in or had its attributes changed. An empty name means the
    // kernel dropped events: anything in the folder may have changed.
    std::function<void(const std::string& name)> fileChanged;
  };

  // Starts watching at once (the folder need not exist yet); none when the kernel refuses (logged).
  static std::unique_ptr<QVFolderWatcher> start(const std::string& folder, Callbacks callbacks);
  // The folder's state as a fresh look at the file system sees it.
  static QVFolderState stateOfFolder(const std::string& folder);

  QVFolderWatcher(const QVFolderWatcher&) = delete;
  QVFolderWatcher& operator=(const QVFolderWatcher&) = delete;
  // No callback runs once this returns (or, when called from a callback, once that callback returns).
  ~QVFolderWatcher();

private:
  struct Impl;
  QVFolderWatcher(std::shared_ptr<Impl> impl, std::thread thread);

  std::shared_ptr<Impl> impl_;
  std::thread thread_;
};
