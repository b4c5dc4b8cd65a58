#include "Foundation/QVPaths.h"

#include <fmt/format.h>

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string_view>

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

std::vector<std::string> QVDataDirectories() {
  std::vector<std::string> folders;
  if (auto xdg = absolutePathFromEnvironment("XDG_DATA_HOME")) {
    folders.push_back(*xdg);
  } else {
    folders.push_back((std::filesystem::path(homeDirectory()) / ".local/share").string());
  }
  const char* shared = std::getenv("XDG_DATA_DIRS");
  const std::string_view list = shared && shared[0] ? shared : "/usr/local/share/:/usr/share/";
  for (size_t start = 0; start <= list.size();) {
    const size_t end = std::min(list.find(':', start), list.size());
    const std::string_view folder = list.substr(start, end - start);
    // Relative entries are ignored, as the XDG rules ask.
    if (!folder.empty() && folder.front() == '/') folders.emplace_back(folder);
    start = end + 1;
  }
  return folders;
}
