// SPDX-License-Identifier: MIT
#pragma once
// Paths the framework places files at.

#include <string>

// The user's caches directory ($XDG_CACHE_HOME, else ~/.cache) with `name` appended. Creates nothing.
std::string QVCachesDirectoryAdd(const std::string& name);

// The user's state directory ($XDG_STATE_HOME, else ~/.local/state) with `name` appended. Creates nothing.
std::string QVStateDirectoryAdd(const std::string& name);

// A path beside `path` where nothing exists yet: "Report.pdf" -> "Report 2.pdf", "Report 3.pdf", ...;
// a directory or a name without extension gets " 2" appended. Returns `path` itself when it is free.
// `start` is the first number tried after the path itself (0 or 1 means 2).
std::string QVGenerateMacStyleUniquePath(const std::string& path, int start = 0);

// The system's temporary directory ($TMPDIR, else /tmp).
std::string QVTemporaryDirectory();
