// SPDX-License-Identifier: MIT
#pragma once
// The tags of every handed-off copy, kept also in a database in the state folder: a copy saved by rename
// loses its extended attributes with its old inode, and some file systems have none. The attributes stay the
// first source; the index is the fallback that restores them. One database per user, used by every process
// of that user at once (write-ahead log, busy timeout). A copy moved elsewhere is not followed: entries are
// by path.

#include "Foundation/QVTypes.h"

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

struct sqlite3;

class QVHandoffCopyIndex {
public:
  // Attribute name -> value, as the extended attributes hold them.
  using Tags = std::map<std::string, QVData>;

  // The index of the current state folder, opened on first use; entries of copies that no longer exist are
  // dropped then.
  static QVHandoffCopyIndex& shared();

  // Replaces the copy's entry.
  bool setTags(const std::string& copyPath, const Tags& tags);
  // None when the copy has no entry.
  std::optional<Tags> tags(const std::string& copyPath);
  // Removes the copy's entry, or only the named tags of it.
  void removeTags(const std::string& copyPath, const std::vector<std::string>& names = {});
  // Drops the entries of copies that no longer exist; how many went.
  size_t dropStale();

  QVHandoffCopyIndex();
  ~QVHandoffCopyIndex();

private:
  struct Closer {
    void operator()(sqlite3* database) const noexcept;
  };
  // Opens the database of the current state folder unless it is open already; false when it cannot be.
  bool open();
  bool execute(const char* statement);
  size_t dropStaleLocked();

  std::mutex mutex_;
  std::string path_;
  std::unique_ptr<sqlite3, Closer> database_;
};
