// SPDX-License-Identifier: MIT
#pragma once
// Where handed-off copies are placed inside a handoff folder. The folder is passed in, so that every
// manager may keep its own.

#include <string>

class QVHandoffDocumentInfo;

namespace QVHandoffPaths {

// The user's handoff folder in the caches directory, created when missing.
std::string defaultFolder();
// The library's folder in the user's state directory (the copy index, records of unfinished save backs),
// created 0700 when missing.
std::string stateFolder();
// "<folder>/<device name>/<peer's path>"; the parent folders are created. A peer's names never lead out
// of `folder`.
std::string filePath(const std::string& folder, const QVHandoffDocumentInfo& documentInfo);
// A new empty file named like the peer's document in a folder of its own inside `folder`.
std::string uniqueEmptyFilePath(const std::string& folder, const QVHandoffDocumentInfo& documentInfo);
// Something that is not a folder exists at `path`.
bool isReadyFilePath(const std::string& path);

// How a download still arriving is named in the folder of its copy; nothing else bears this name.
inline constexpr const char* kPartialDownloadPrefix = ".qvhandoff-partial-";
// Removes the files named like a download still arriving anywhere under `folder`: an installation killed
// mid-download leaves them, none of them is a copy yet.
void sweepPartialDownloads(const std::string& folder);

} // namespace QVHandoffPaths
