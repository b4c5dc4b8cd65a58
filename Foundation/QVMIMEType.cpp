#include "Foundation/QVMIMEType.h"

#include "Foundation/QVPaths.h"

#include <fnmatch.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <string_view>
#include <vector>

namespace {

constexpr const char* kUnknownMIMEType = "application/octet-stream";

std::string asciiLowercase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

// The best type a kind of pattern gave so far: the one of highest weight, the first of them on a tie;
// suffixes rank by their length before their weight.
struct Candidate {
  std::string type;
  int weight = -1;
  size_t length = 0;

  void offer(std::string_view offered, int offeredWeight, size_t offeredLength = 0) {
    if (offeredLength < length || (offeredLength == length && offeredWeight <= weight)) return;
    type = offered;
    weight = offeredWeight;
    length = offeredLength;
  }
  bool found() const { return weight >= 0; }
};

// What one folder of the database says of a name. The passes follow the shared MIME database's own lookup:
// literal names, then the longest simple suffix ("*.tar.gz" before "*.gz"), then any other glob; each first
// among the patterns that ignore case (against the lowercased name), then among all of them as written.
struct FolderMatches {
  // The file repeats each case-sensitive pattern without its flag for older readers; the first one counts.
  std::vector<std::string> caseSensitivePatterns;
  // [0]: the patterns that ignore case, against the lowercased name; [1]: all of them, as written.
  Candidate literal[2];
  Candidate suffix[2];
  Candidate glob[2];
};

bool hasWildcard(std::string_view text) {
  return text.find_first_of("*?[") != std::string_view::npos;
}

// One line of globs2: "weight:type:pattern[:flags]", where the flag "cs" makes the pattern case-sensitive.
void matchLine(std::string_view line, const std::string& name, const std::string& lowerName,
               FolderMatches& matches) {
  if (line.empty() || line.front() == '#') return;
  const size_t typeStart = line.find(':');
  const size_t patternStart = typeStart == std::string_view::npos ? typeStart : line.find(':', typeStart + 1);
  if (patternStart == std::string_view::npos) return;
  const std::string_view type = line.substr(typeStart + 1, patternStart - typeStart - 1);
  std::string_view pattern = line.substr(patternStart + 1);
  std::string_view flags;
  if (const size_t flagsStart = pattern.find(':'); flagsStart != std::string_view::npos) {
    flags = pattern.substr(flagsStart + 1);
    pattern = pattern.substr(0, flagsStart);
  }
  if (type.empty() || pattern.empty() || pattern == "__NOGLOBS__") return;
  int weight = 0;
  std::from_chars(line.data(), line.data() + typeStart, weight);
  bool caseSensitive = false;
  for (size_t start = 0; start < flags.size();) {
    const size_t end = std::min(flags.find(',', start), flags.size());
    caseSensitive = caseSensitive || flags.substr(start, end - start) == "cs";
    start = end + 1;
  }
  const std::string key = std::string(type) + ':' + std::string(pattern);
  auto& seen = matches.caseSensitivePatterns;
  if (caseSensitive) {
    seen.push_back(key);
  } else if (std::find(seen.begin(), seen.end(), key) != seen.end()) {
    return;
  }
  const std::string written = caseSensitive ? std::string(pattern) : asciiLowercase(pattern);

  const auto offer = [&](Candidate(&kind)[2], auto&& matchesName, size_t length = 0) {
    if (!caseSensitive && matchesName(lowerName)) kind[0].offer(type, weight, length);
    if (matchesName(name)) kind[1].offer(type, weight, length);
  };
  const std::string_view suffix = std::string_view(written).substr(1);
  if (!hasWildcard(written)) {
    offer(matches.literal, [&](const std::string& candidate) { return candidate == written; });
  } else if (written.front() == '*' && !hasWildcard(suffix)) {
    offer(
        matches.suffix, [&](const std::string& candidate) { return candidate.ends_with(suffix); },
        suffix.size());
  } else {
    offer(matches.glob,
          [&](const std::string& candidate) { return fnmatch(written.c_str(), candidate.c_str(), 0) == 0; });
  }
}

} // namespace

std::string QVMIMETypeForPath(const std::string& path) {
  if (!path.empty() && path.back() == '/') return "inode/directory";
  // Only the name is consulted: the file may not exist yet, and reading it could block on a slow mount.
  const std::string name = path.substr(path.rfind('/') + 1);
  const std::string lowerName = asciiLowercase(name);
  // Read afresh each time: a guess is rare, and the database may change while the host runs.
  std::vector<FolderMatches> folders;
  for (const std::string& folder : QVDataDirectories()) {
    std::ifstream globs(folder + "/mime/globs2");
    if (!globs) continue;
    FolderMatches& matches = folders.emplace_back();
    for (std::string line; std::getline(globs, line);)
      matchLine(line, name, lowerName, matches);
  }
  // The user's folder comes first, and the first folder with an answer in a pass has the last word.
  for (const auto kind : {&FolderMatches::literal, &FolderMatches::suffix, &FolderMatches::glob}) {
    for (const size_t pass : {0, 1}) {
      for (const auto& matches : folders) {
        if ((matches.*kind)[pass].found()) return (matches.*kind)[pass].type;
      }
    }
  }
  return kUnknownMIMEType;
}
