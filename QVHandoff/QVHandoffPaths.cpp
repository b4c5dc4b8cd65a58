// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffPaths.h"

#include "Foundation/QVFileHandle.h"
#include "Foundation/QVFileOperations.h"
#include "Foundation/QVPaths.h"
#include "Foundation/QVUUID.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffManager.h"

#include <filesystem>
#include <string_view>

namespace fs = std::filesystem;

namespace {

// A peer's names must not lead out of the handoff folder: empty, "." and ".." components are dropped.
void appendComponents(fs::path& path, std::string_view components) {
  size_t start = 0;
  while (start <= components.size()) {
    const size_t end = std::min(components.find('/', start), components.size());
    const std::string_view component = components.substr(start, end - start);
    if (!component.empty() && component != "." && component != "..") path /= std::string(component);
    start = end + 1;
  }
}

} // namespace

namespace QVHandoffPaths {

std::string defaultFolder() {
  std::string folder = QVCachesDirectoryAdd(QVHandoffDirectoryName);
  QVCreateDirectory(folder);
  return folder;
}

std::string stateFolder() {
  std::string folder = QVStateDirectoryAdd(QVHandoffDirectoryName);
  QVCreateDirectory(folder);
  std::error_code ignored;
  fs::permissions(folder, fs::perms::owner_all, fs::perm_options::replace, ignored);
  return folder;
}

std::string filePath(const std::string& folder, const QVHandoffDocumentInfo& documentInfo) {
  fs::path path(folder);
  appendComponents(path, documentInfo.deviceName());
  appendComponents(path, documentInfo.filePath());
  QVCreateDirectory(path.parent_path().string());
  return path.string();
}

std::string uniqueEmptyFilePath(const std::string& folder, const QVHandoffDocumentInfo& documentInfo) {
  const fs::path copyFolder = fs::path(folder) / QVUUIDString();
  QVCreateDirectory(copyFolder.string());
  fs::path peerPath;
  appendComponents(peerPath, documentInfo.filePath());
  std::string path = (copyFolder / peerPath.filename()).string();
  QVFileHandle::forCreatingAtPath(path);
  return path;
}

bool isReadyFilePath(const std::string& path) {
  bool isDirectory = false;
  return QVFileExists(path, &isDirectory) && !isDirectory;
}

void sweepPartialDownloads(const std::string& folder) {
  std::error_code error;
  // Symbolic links are not followed: the sweep stays inside the handoff folder.
  for (auto entry = fs::recursive_directory_iterator(folder, error);
       !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
    std::error_code ignored;
    if (entry->is_regular_file(ignored) && !entry->is_symlink(ignored) &&
        entry->path().filename().string().starts_with(kPartialDownloadPrefix))
      fs::remove(entry->path(), ignored);
  }
}

} // namespace QVHandoffPaths
