// SPDX-License-Identifier: MIT
#include "Foundation/QVFolderWatcher.h"

#include "Foundation/QVFileDescriptor.h"
#include "Foundation/QVLog.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>

QV_LOG_SOURCE("Foundation/QVFolderWatcher")

namespace {

// What a sync client does to a file: writes it in place, renames a finished temporary over it, or sets its
// modification date afterwards.
constexpr uint32_t kFolderMask =
    IN_CLOSE_WRITE | IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// Above the folder only the entry leading to it matters: its creation, removal, renaming and mode.
constexpr uint32_t kAncestorMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB |
                                   IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// Every round of rewatching either settles or descends one level; paths are never this deep.
constexpr int kMaxRewatchRounds = 64;

std::string errnoText(int code) {
  return std::error_code(code, std::generic_category()).message();
}

struct DirectoryIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  friend bool operator==(const DirectoryIdentity&, const DirectoryIdentity&) = default;
};

std::optional<DirectoryIdentity> directoryIdentity(const std::filesystem::path& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return std::nullopt;
  return DirectoryIdentity{info.st_dev, info.st_ino};
}

struct Watch {
  int descriptor = -1;
  std::filesystem::path path;
  DirectoryIdentity identity;
};

std::filesystem::path normalizedFolder(const std::string& folder) {
  std::error_code error;
  std::filesystem::path path = std::filesystem::absolute(folder, error).lexically_normal();
  if (error) path = std::filesystem::path(folder).lexically_normal();
  if (!path.has_filename() && path.has_parent_path()) path = path.parent_path();
  return path;
}

} // namespace

struct QVFolderWatcher::Impl {
  std::filesystem::path folder;
  Callbacks callbacks;
  QVFileDescriptor inotify;
  QVFileDescriptor stopEvent;
  std::atomic<bool> stopping = false;
  // The rest belongs to the watcher's thread once it runs.
  Watch folderWatch;
  // The deepest existing folder above ours, so that ours is noticed when it is created or replaced.
  Watch ancestorWatch;
  std::string childTowardFolder;
  QVFolderState state;

  void run();
  void processEvents();
  bool rewatch();
  bool addWatch(Watch& watch, const std::filesystem::path& path, DirectoryIdentity identity, uint32_t mask);
  void removeWatch(Watch& watch);
  void addExistingFileNames(std::vector<std::string>& names) const;
  void deliver(const std::vector<std::string>& names, std::optional<QVFolderState> newState) const;
};

bool QVFolderWatcher::Impl::addWatch(Watch& watch, const std::filesystem::path& path,
                                     DirectoryIdentity identity, uint32_t mask) {
  const int descriptor = inotify_add_watch(inotify.get(), path.c_str(), mask);
  if (descriptor < 0) {
    QV_LOG_ERROR("Couldn't watch folder {} ({})", path.string(), errnoText(errno));
    return false;
  }
  watch = Watch{descriptor, path, identity};
  return true;
}

void QVFolderWatcher::Impl::removeWatch(Watch& watch) {
  // The kernel has already dropped the watch of a deleted folder; the failure of this call is expected then.
  inotify_rm_watch(inotify.get(), watch.descriptor);
  watch = Watch{};
}

// Brings both watches in line with the file system; true when the folder itself is newly watched.
bool QVFolderWatcher::Impl::rewatch() {
  bool appeared = false;
  for (int round = 0; round < kMaxRewatchRounds; ++round) {
    bool changed = false;
    const auto folderIdentity = directoryIdentity(folder);
    if (folderWatch.descriptor >= 0 && folderIdentity != folderWatch.identity) {
      removeWatch(folderWatch);
      changed = true;
    }
    if (folderWatch.descriptor < 0 && folderIdentity &&
        addWatch(folderWatch, folder, *folderIdentity, kFolderMask)) {
      appeared = changed = true;
    }

    std::filesystem::path ancestor = folder.parent_path();
    auto ancestorIdentity = directoryIdentity(ancestor);
    while (!ancestorIdentity && ancestor.has_relative_path()) {
      ancestor = ancestor.parent_path();
      ancestorIdentity = directoryIdentity(ancestor);
    }
    if (ancestorWatch.descriptor >= 0 &&
        (ancestorWatch.path != ancestor || ancestorIdentity != ancestorWatch.identity)) {
      removeWatch(ancestorWatch);
      changed = true;
    }
    if (ancestorWatch.descriptor < 0 && ancestorIdentity &&
        addWatch(ancestorWatch, ancestor, *ancestorIdentity, kAncestorMask)) {
      childTowardFolder = folder.lexically_relative(ancestor).begin()->string();
      changed = true;
    }
    // A level created while we added a watch has to be looked at again.
    if (!changed) break;
  }
  return appeared;
}

void QVFolderWatcher::Impl::addExistingFileNames(std::vector<std::string>& names) const {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    std::error_code typeError;
    if (!entry.is_regular_file(typeError)) continue;
    std::string name = entry.path().filename().string();
    if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(std::move(name));
  }
}

void QVFolderWatcher::Impl::deliver(const std::vector<std::string>& names,
                                    std::optional<QVFolderState> newState) const {
  if (newState && callbacks.folderStateChanged && !stopping) callbacks.folderStateChanged(*newState);
  for (const auto& name : names) {
    if (stopping) return;
    if (callbacks.fileChanged) callbacks.fileChanged(name);
  }
}

void QVFolderWatcher::Impl::processEvents() {
  bool structureChanged = false;
  bool attributesChanged = false;
  bool overflowed = false;
  std::vector<std::string> names;
  alignas(inotify_event) std::array<char, 16 * 1024> buffer;
  while (true) {
    const ssize_t length = read(inotify.get(), buffer.data(), buffer.size());
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) {
      if (length < 0 && errno != EAGAIN) QV_LOG_ERROR("Couldn't read folder events ({})", errnoText(errno));
      break;
    }
    for (const char* cursor = buffer.data(); cursor < buffer.data() + length;) {
      const auto* event = reinterpret_cast<const inotify_event*>(cursor);
      cursor += sizeof(inotify_event) + event->len;
      const std::string name = event->len > 0 ? std::string(event->name) : std::string();
      const bool self = event->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED);
      if (event->mask & IN_Q_OVERFLOW) {
        structureChanged = overflowed = true;
      } else if (event->wd == folderWatch.descriptor) {
        if (self) {
          structureChanged = true;
        } else if (name.empty()) {
          attributesChanged = true;
        } else if (!(event->mask & IN_ISDIR) && std::find(names.begin(), names.end(), name) == names.end()) {
          names.push_back(name);
        }
      } else if (event->wd == ancestorWatch.descriptor && (self || name == childTowardFolder)) {
        structureChanged = true;
      }
    }
  }

  const bool appeared = structureChanged && rewatch();
  std::optional<QVFolderState> newState;
  if (structureChanged || attributesChanged) {
    const QVFolderState current = stateOfFolder(folder.string());
    if (current != state) newState = state = current;
  }
  // Whatever was written before the watch was in place, or while events were lost, counts as changed.
  if (overflowed) names.emplace_back();
  if (appeared || overflowed) addExistingFileNames(names);
  deliver(names, newState);
}

void QVFolderWatcher::Impl::run() {
  std::array<pollfd, 2> fds{{{inotify.get(), POLLIN, 0}, {stopEvent.get(), POLLIN, 0}}};
  while (!stopping) {
    if (poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      QV_LOG_ERROR("Couldn't wait for folder events ({})", errnoText(errno));
      return;
    }
    if (stopping || fds[1].revents != 0) return;
    if (fds[0].revents != 0) processEvents();
  }
}

QVFolderState QVFolderWatcher::stateOfFolder(const std::string& folder) {
  QVFolderState state;
  state.exists = directoryIdentity(folder).has_value();
  // Asking the kernel rather than writing a probe file: a probe would be synced to every device.
  state.writable = state.exists && faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
  return state;
}

std::unique_ptr<QVFolderWatcher> QVFolderWatcher::start(const std::string& folder, Callbacks callbacks) {
  auto impl = std::make_shared<Impl>();
  impl->folder = normalizedFolder(folder);
  impl->callbacks = std::move(callbacks);
  impl->inotify.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!impl->inotify) {
    QV_LOG_ERROR("Couldn't watch folder {} ({})", folder, errnoText(errno));
    return nullptr;
  }
  impl->stopEvent.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (!impl->stopEvent) {
    QV_LOG_ERROR("Couldn't watch folder {} ({})", folder, errnoText(errno));
    return nullptr;
  }
  // Watches first, then the state: a change in between shows up as an event rather than being lost.
  impl->rewatch();
  impl->state = stateOfFolder(impl->folder.string());
  try {
    std::thread thread([impl] { impl->run(); });
    return std::unique_ptr<QVFolderWatcher>(new QVFolderWatcher(impl, std::move(thread)));
  } catch (const std::system_error& error) {
    QV_LOG_ERROR("Couldn't watch folder {} ({})", folder, error.what());
    return nullptr;
  }
}

QVFolderWatcher::QVFolderWatcher(std::shared_ptr<Impl> impl, std::thread thread)
    : impl_(std::move(impl)), thread_(std::move(thread)) {}

QVFolderWatcher::~QVFolderWatcher() {
  impl_->stopping = true;
  const uint64_t one = 1;
  if (write(impl_->stopEvent.get(), &one, sizeof one) != sizeof one) {
    QV_LOG_ERROR("Couldn't stop folder watcher ({})", errnoText(errno));
  }
  // From one of our own callbacks (its owner went away there) the thread cannot join itself; it holds the
  // shared state and ends as soon as that callback returns.
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();
  } else {
    thread_.join();
  }
}
