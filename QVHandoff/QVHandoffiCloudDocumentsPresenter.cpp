// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffiCloudDocumentsPresenter.h"

#include "Foundation/QVFolderWatcher.h"
#include "Foundation/QVLog.h"
#include "Foundation/QVMainQueue.h"
#include "Foundation/QVNotificationCenter.h"

#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

QV_LOG_SOURCE("QVHandoff/QVHandoffiCloudDocumentsPresenter")

namespace {

struct ProcessState {
  std::mutex mutex;
  std::shared_ptr<QVHandoffiCloudDocumentsPresenter> presenter;
  bool testStarted = false;
  bool tested = false;
  bool available = false;
  // Bumped by a reset: a test still running for an earlier generation must not report.
  uint64_t generation = 0;
  std::thread testThread;

  ~ProcessState() {
    if (testThread.joinable()) testThread.join();
  }
};

ProcessState& processState() {
  static ProcessState state;
  return state;
}

void runAvailabilityTest(const std::string& containerPath, uint64_t generation) {
  const bool available = !containerPath.empty() && QVFolderWatcher::stateOfFolder(containerPath).writable;
  ProcessState& state = processState();
  {
    std::lock_guard lock(state.mutex);
    if (state.generation != generation) return;
    state.available = available;
    state.tested = true;
  }
  QVMainQueue::main().post([generation] {
    ProcessState& current = processState();
    {
      std::lock_guard lock(current.mutex);
      if (current.generation != generation) return;
    }
    QVNotificationCenter::defaultCenter().post(QVHandoffiCloudTestedNotification, nullptr);
  });
}

void postAccountStateDidChange(const std::weak_ptr<QVHandoffiCloudDocumentsPresenter>& presenter) {
  QVMainQueue::main().post([presenter] {
    if (auto sender = presenter.lock()) {
      QVNotificationCenter::defaultCenter().post(QViCloudAccountStateDidChangeNotification, sender.get());
    }
  });
}

} // namespace

QVHandoffiCloudDocumentsPresenter::QVHandoffiCloudDocumentsPresenter(Passkey, std::string containerPath)
    : containerPath_(std::move(containerPath)), lastAccountState_(currentAccountState()) {}

QVHandoffiCloudDocumentsPresenter::~QVHandoffiCloudDocumentsPresenter() = default;

void QVHandoffiCloudDocumentsPresenter::setContainerPath(std::string path) {
  std::shared_ptr<QVHandoffiCloudDocumentsPresenter> presenter;
  if (!path.empty()) {
    presenter = std::make_shared<QVHandoffiCloudDocumentsPresenter>(Passkey{}, std::move(path));
    presenter->weakSelf_ = presenter;
    QVFolderWatcher::Callbacks callbacks;
    // The watcher is the presenter's last member, stopped before the rest of it goes away.
    callbacks.folderStateChanged = [raw = presenter.get()](QVFolderState) {
      raw->accountStateMayHaveChanged();
    };
    presenter->watcher_ = QVFolderWatcher::start(presenter->containerPath_, std::move(callbacks));
  }
  ProcessState& state = processState();
  std::shared_ptr<QVHandoffiCloudDocumentsPresenter> previous;
  {
    std::lock_guard lock(state.mutex);
    previous = std::exchange(state.presenter, presenter);
  }
  // A host that names an existing folder late still lets waiting storages and a refused start go on.
  const int previousState = previous ? previous->lastAccountState_.load() : kAccountStateNoAccount;
  if (presenter && presenter->lastAccountState_ != previousState) postAccountStateDidChange(presenter);
  // The folder may have changed between the first look and the watch.
  if (presenter) presenter->accountStateMayHaveChanged();
}

std::shared_ptr<QVHandoffiCloudDocumentsPresenter> QVHandoffiCloudDocumentsPresenter::defaultPresenter() {
  ProcessState& state = processState();
  std::lock_guard lock(state.mutex);
  return state.presenter;
}

bool QVHandoffiCloudDocumentsPresenter::isiCloudConfigured() {
  const auto presenter = defaultPresenter();
  return presenter && QVFolderWatcher::stateOfFolder(presenter->containerPath_).exists;
}

bool QVHandoffiCloudDocumentsPresenter::isiCloudAvailable() {
  ProcessState& state = processState();
  std::lock_guard lock(state.mutex);
  return state.available;
}

bool QVHandoffiCloudDocumentsPresenter::isiCloudTested() {
  ProcessState& state = processState();
  std::unique_lock lock(state.mutex);
  const bool tested = state.tested;
  if (state.testStarted) return tested;
  state.testStarted = true;
  const std::string containerPath = state.presenter ? state.presenter->containerPath_ : std::string();
  const uint64_t generation = state.generation;
  try {
    state.testThread = std::thread(runAvailabilityTest, containerPath, generation);
  } catch (const std::system_error& error) {
    QV_LOG_WARN("Couldn't start the availability test thread ({}), testing here", error.what());
    lock.unlock();
    runAvailabilityTest(containerPath, generation);
  }
  return tested;
}

void QVHandoffiCloudDocumentsPresenter::resetForTesting() {
  ProcessState& state = processState();
  std::thread test;
  std::shared_ptr<QVHandoffiCloudDocumentsPresenter> presenter;
  {
    std::lock_guard lock(state.mutex);
    test = std::move(state.testThread);
    presenter = std::move(state.presenter);
    state.testStarted = state.tested = state.available = false;
    ++state.generation;
  }
  if (test.joinable()) test.join();
}

int QVHandoffiCloudDocumentsPresenter::currentAccountState() const {
  const QVFolderState folder = QVFolderWatcher::stateOfFolder(containerPath_);
  return folder.exists && folder.writable ? kAccountStateAvailable : kAccountStateNoAccount;
}

void QVHandoffiCloudDocumentsPresenter::accountStateMayHaveChanged() {
  const int accountState = currentAccountState();
  if (lastAccountState_.exchange(accountState) != accountState) postAccountStateDidChange(weakSelf_);
}
