// SPDX-License-Identifier: MIT
#pragma once
// Files the library writes while they are incomplete: mode 0600 and created exclusively, in a folder only
// this user can enter, so that no other local user reads a document while it arrives.

#include "Foundation/QVFileDescriptor.h"
#include "Foundation/QVTypes.h"

#include <optional>
#include <string>

struct QVPrivateFile {
  QVFileDescriptor descriptor;
  // Empty for an unnamed file: it gets a name only when it is linked in, complete.
  std::string path;
};

// "$XDG_RUNTIME_DIR/com.quorvel.handoff", else "$TMPDIR/com.quorvel.handoff-<uid>", made 0700 when missing;
// none when what is there is not a folder of this user's that only this user can enter.
std::optional<std::string> QVPrivateTemporaryDirectory();
// A new 0600 file in the private temporary folder.
std::optional<QVPrivateFile> QVCreatePrivateTemporaryFile(QVError* error);
// A new 0600 file "<prefix><UUID>" in `folder`, created exclusively.
std::optional<QVPrivateFile> QVCreatePrivateFile(const std::string& folder, const std::string& prefix,
                                                 QVError* error);
// A new 0600 file at `path`, created exclusively.
std::optional<QVPrivateFile> QVCreatePrivateFileAtPath(std::string path, QVError* error);
// An unnamed 0600 file in `folder` (O_TMPFILE); none where the file system has no unnamed files.
std::optional<QVPrivateFile> QVCreateUnnamedFile(const std::string& folder, QVError* error);
