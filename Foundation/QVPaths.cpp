// SPDX-License-Identifier: MIT
#include "Foundation/QVPaths.h"

#include <fmt/format.h>

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>

namespace {

// A non-empty absolute path from the environment; relative ones are ignored as the XDG rules ask.
std::optional<std::string> absolutePathFromEnvironment(const char* name) {
  const char* value = std::getenv(name);
  if (!value || value[0] != '/') return std::nullopt;
  return std::string(value);
}

std::string homeDirectory() {
  if (auto home = absolutePathFromEnvironment("HOME")) return *home;
  // A service account started without HOME still has a password entry.
  if (const passwd* entry = getpwuid(getuid()); entry && entry->pw_dir) return entry->pw_dir;
  return "/";
}

bool somethingExists(const std::filesystem::path& path) {
  std::error_code error;
  // A dangling symbolic link is something too: writing through it would create its target.
  return std::filesystem::exists(std::filesystem::symlink_status(path, error));
}

} // namespace

std::string QVCachesDirectoryAdd(const std::string& name) {
  std::filesystem::path caches;
  if (auto xdg = absolutePathFromEnvironment("XDG_CACHE_HOME")) {
    caches = *xdg;
  } else {
    caches = std::filesystem::path(homeDirectory()) / ".cache";
  }
  return (caches / name).string();
}

std::string QVStateDirectoryAdd(const std::string& name) {
  if (auto xdg = absolutePathFromEnvironment("XDG_STATE_HOME"))
    return (std::filesystem::path(*xdg) / name).string();
  return (std::filesystem::path(homeDirectory()) / ".local" / "state" / name).string();
}

std::string QVGenerateMacStyleUniquePath(const std::string& path, int start) {
  std::filesystem::path original(path);
  while (original.has_relative_path() && !original.has_filename())
    original = original.parent_path();
  if (!somethingExists(original)) return path;

  std::error_code error;
  const bool isDirectory = std::filesystem::is_directory(original, error);
  const std::filesystem::path parent = original.parent_path();
  const std::string stem = isDirectory ? original.filename().string() : original.stem().string();
  const std::string extension = isDirectory ? "" : original.extension().string();
  for (uint64_t number = start > 2 ? static_cast<uint64_t>(start) : 2;; ++number) {
    const std::filesystem::path candidate = parent / fmt::format("{} {}{}", stem, number, extension);
    if (!somethingExists(candidate)) return candidate.string();
  }
}

std::string QVTemporaryDirectory() {
  if (auto tmp = absolutePathFromEnvironment("TMPDIR")) return *tmp;
  return "/tmp";
}
