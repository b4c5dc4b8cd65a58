// SPDX-License-Identifier: MIT
#pragma once
// Copy, replacing move and attribute reads with the framework's error values (domain "QVPOSIXErrorDomain",
// code = errno).

#include "Foundation/QVTypes.h"
#include "QVHandoff/QVHandoffExport.h"

#include <cstdint>
#include <optional>
#include <string>

/// The domain of file errors; the code is the errno value.
inline constexpr const char* QVPOSIXErrorDomain = "QVPOSIXErrorDomain";

struct QVHANDOFF_EXPORT QVFileAttributes {
  uint64_t fileSize = 0;
  QVDate fileModificationDate{};
  bool isDirectory = false;
};

/// Copies a file (or a directory tree) to a destination that must not exist yet.
QVHANDOFF_EXPORT bool QVCopyItem(const std::string& source, const std::string& destination, QVError* error);
/// Copies a regular file, as large as it was when opened, to a new 0600 file at a destination that must not
/// exist yet. Anything else is refused unread: EISDIR for a folder, EINVAL for a FIFO, device or socket.
QVHANDOFF_EXPORT bool QVCopyRegularFile(const std::string& source, const std::string& destination,
                                        QVError* error);
/// Moves source to destination, replacing a file there; works across file systems. A folder is never removed
/// or replaced, nor one reached through a link or named with a trailing "/": that fails with EISDIR.
QVHANDOFF_EXPORT bool QVMoveItemReplacing(const std::string& source, const std::string& destination,
                                          QVError* error);
/// Size, modification date and kind of the item, following links; none (error set) when it cannot be read.
QVHANDOFF_EXPORT std::optional<QVFileAttributes> QVAttributesOfItem(const std::string& path, QVError* error);
/// Something is at `path`, following links; `isDirectory` then tells whether it is a folder.
QVHANDOFF_EXPORT bool QVFileExists(const std::string& path, bool* isDirectory = nullptr);
/// Creates the directory and any missing parents; true when it exists afterwards.
QVHANDOFF_EXPORT bool QVCreateDirectory(const std::string& path);
/// Removes a file or a directory tree; false when nothing was there or it could not be removed.
QVHANDOFF_EXPORT bool QVRemoveItem(const std::string& path);
/// The QVPOSIXErrorDomain error for `code`, without userInfo.
QVHANDOFF_EXPORT QVError QVErrorFromErrno(int code);

/// The path ends in "/" or names a folder, directly or through a symbolic link.
bool QVIsFolderTarget(const std::string& path);
/// Writes all of `bytes`; false (errno set) on a failure.
bool QVWriteAll(int descriptor, const uint8_t* bytes, size_t length);
/// Gives the open file the owner (when permitted), mode and extended attributes of the item at `path`, so
/// that a replacement keeps what the user set on the original; false when `path` cannot be read.
bool QVCopyOwnerModeAndAttributes(const std::string& path, int descriptor);
/// Gives the open file (named or unnamed) the name `path`, atomically; EEXIST when something is there.
bool QVLinkOpenFile(int descriptor, const std::string& path, QVError* error);
/// Flushes the folder holding `path`, so that a rename or a link made in it survives a crash.
bool QVSyncParentFolder(const std::string& path);
