// SPDX-License-Identifier: MIT
#include "Foundation/QVPrivateTemporaryFile.h"

#include "Foundation/QVFileOperations.h"
#include "Foundation/QVPaths.h"
#include "Foundation/QVUUID.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

namespace {

constexpr mode_t kPrivateFileMode = 0600;
constexpr mode_t kPrivateFolderMode = 0700;

std::optional<QVPrivateFile> failed(QVError* error, int code) {
  if (error) *error = QVErrorFromErrno(code);
  return std::nullopt;
}

// A folder someone else owns, or may enter, could be watched or swapped under us: refused, never repaired.
bool isPrivateFolder(const std::string& path) {
  struct stat info;
  if (lstat(path.c_str(), &info) != 0) return false;
  return S_ISDIR(info.st_mode) && info.st_uid == geteuid() && (info.st_mode & 077) == 0;
}

} // namespace

std::optional<std::string> QVPrivateTemporaryDirectory() {
  std::string folder;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime && runtime[0] == '/') {
    folder = (std::filesystem::path(runtime) / "com.quorvel.handoff").string();
  } else {
    folder =
        (std::filesystem::path(QVTemporaryDirectory()) / ("com.quorvel.handoff-" + std::to_string(geteuid())))
            .string();
  }
  if (mkdir(folder.c_str(), kPrivateFolderMode) != 0 && errno != EEXIST) return std::nullopt;
  if (!isPrivateFolder(folder)) return std::nullopt;
  return folder;
}

std::optional<QVPrivateFile> QVCreatePrivateTemporaryFile(QVError* error) {
  const auto folder = QVPrivateTemporaryDirectory();
  if (!folder) return failed(error, EACCES);
  return QVCreatePrivateFile(*folder, "", error);
}

std::optional<QVPrivateFile> QVCreatePrivateFile(const std::string& folder, const std::string& prefix,
                                                 QVError* error) {
  return QVCreatePrivateFileAtPath((std::filesystem::path(folder) / (prefix + QVUUIDString())).string(),
                                   error);
}

std::optional<QVPrivateFile> QVCreatePrivateFileAtPath(std::string path, QVError* error) {
  QVFileDescriptor descriptor(
      ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kPrivateFileMode));
  if (!descriptor) return failed(error, errno);
  // The umask may only take bits away, but a file that was made wider by an ACL default is narrowed here.
  if (fchmod(descriptor.get(), kPrivateFileMode) != 0) {
    const int code = errno;
    ::unlink(path.c_str());
    return failed(error, code);
  }
  return QVPrivateFile{std::move(descriptor), std::move(path)};
}

std::optional<QVPrivateFile> QVCreateUnnamedFile(const std::string& folder, QVError* error) {
  QVFileDescriptor descriptor(::open(folder.c_str(), O_RDWR | O_TMPFILE | O_CLOEXEC, kPrivateFileMode));
  if (!descriptor) return failed(error, errno);
  if (fchmod(descriptor.get(), kPrivateFileMode) != 0) return failed(error, errno);
  return QVPrivateFile{std::move(descriptor), {}};
}
