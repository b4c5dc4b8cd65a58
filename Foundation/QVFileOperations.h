#pragma once
// Copy, replacing move and attribute reads with the framework's error values (domain "QVPOSIXErrorDomain",
// code = errno).

#include "Foundation/QVTypes.h"
#include "QVHandoff/QVHandoffExport.h"

#include <cstdint>
#include <optional>
#include <string>

inline constexpr const char* QVPOSIXErrorDomain = "QVPOSIXErrorDomain";

struct QVHANDOFF_EXPORT QVFileAttributes {
  uint64_t fileSize = 0;
  QVDate fileModificationDate{};
  bool isDirectory = false;
};

// Copies a file (or a directory tree) to a destination that must not exist yet.
QVHANDOFF_EXPORT bool QVCopyItem(const std::string& source, const std::string& destination, QVError* error);
// Moves source to destination, replacing whatever is there; works across file systems.
QVHANDOFF_EXPORT bool QVMoveItemReplacing(const std::string& source, const std::string& destination,
                                          QVError* error);
QVHANDOFF_EXPORT std::optional<QVFileAttributes> QVAttributesOfItem(const std::string& path, QVError* error);
QVHANDOFF_EXPORT bool QVFileExists(const std::string& path, bool* isDirectory = nullptr);
// Creates the directory and any missing parents; true when it exists afterwards.
QVHANDOFF_EXPORT bool QVCreateDirectory(const std::string& path);
// Removes a file or a directory tree; false when nothing was there or it could not be removed.
QVHANDOFF_EXPORT bool QVRemoveItem(const std::string& path);
QVHANDOFF_EXPORT QVError QVErrorFromErrno(int code);
