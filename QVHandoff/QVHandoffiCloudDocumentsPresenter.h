// SPDX-License-Identifier: MIT
#pragma once
// The cloud container of this platform: a folder that the user's devices keep in sync, given by the host.
// Answers whether it is there (configured), whether it can be written (available, once tested), and
// announces when it comes, goes or changes writability (the account state).

#include "QVHandoff/QVHandoffExport.h"
#include <atomic>
#include <memory>
#include <string>

class QVFolderWatcher;

/// Posted on the main queue, no object, once the availability test has finished.
inline constexpr const char* QVHandoffiCloudTestedNotification = "QVHandoffiCloudTestedNotification";
/// Posted on the main queue, with the default presenter as object, when `currentAccountState` changes.
inline constexpr const char* QViCloudAccountStateDidChangeNotification =
    "QViCloudAccountStateDidChangeNotification";

class QVHANDOFF_EXPORT QVHandoffiCloudDocumentsPresenter {
  struct Passkey {};

public:
  /// The values of currentAccountState().
  static constexpr int kAccountStateNoAccount = 0;
  static constexpr int kAccountStateAvailable = 1;

  /// The synced folder. Set by the host before it creates storages; the folder may appear later.
  static void setContainerPath(std::string path);
  /// Absent until the host has set a container folder.
  static std::shared_ptr<QVHandoffiCloudDocumentsPresenter> defaultPresenter();

  /// The container folder exists.
  static bool isiCloudConfigured();
  /// The container folder was writable when the test ran; false until then.
  static bool isiCloudAvailable();
  /// The first call starts the test, once per process, and returns false; the test's end is announced by
  /// QVHandoffiCloudTestedNotification.
  static bool isiCloudTested();

  /// Forgets the container, the presenter and the test, so that each test starts as a fresh process.
  static void resetForTesting();

  QVHandoffiCloudDocumentsPresenter(Passkey, std::string containerPath);
  ~QVHandoffiCloudDocumentsPresenter();

  /// The synced folder's path, as the host set it.
  const std::string& containerURL() const { return containerPath_; }
  /// 1 while the folder exists and is writable, else 0.
  int currentAccountState() const;

private:
  void accountStateMayHaveChanged();

  const std::string containerPath_;
  std::weak_ptr<QVHandoffiCloudDocumentsPresenter> weakSelf_;
  std::atomic<int> lastAccountState_ = kAccountStateNoAccount;
  /// Last: it is stopped before the fields its callbacks use go away.
  std::unique_ptr<QVFolderWatcher> watcher_;
};
