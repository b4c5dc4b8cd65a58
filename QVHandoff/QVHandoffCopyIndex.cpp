// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffCopyIndex.h"

#include "Foundation/QVCFree.h"
#include "Foundation/QVFileDescriptor.h"
#include "Foundation/QVLog.h"
#include "QVHandoff/QVHandoffPaths.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <thread>

QV_LOG_SOURCE("QVHandoff/QVHandoffCopyIndex")

namespace fs = std::filesystem;

namespace {

constexpr const char* kDatabaseName = "copies.sqlite";
// A one-shot command and a running server write at the same moment now and then; neither should fail for it.
constexpr int kBusyTimeoutMilliseconds = 5000;
constexpr int kSetUpRetryMilliseconds = 20;

using QVStatement = std::unique_ptr<sqlite3_stmt, QVCFree<&sqlite3_finalize>>;

// Entries are by the copy's absolute path, so that "a/b.pdf" and "./a/b.pdf" name one copy.
std::string key(const std::string& path) {
  std::error_code ignored;
  return fs::absolute(path, ignored).lexically_normal().string();
}

bool bindText(sqlite3_stmt* statement, int index, const std::string& text) {
  return sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT) ==
         SQLITE_OK;
}

// An empty value is a value: SQLite would take an empty buffer for NULL.
bool bindBlob(sqlite3_stmt* statement, int index, const QVData& value) {
  if (value.empty()) return sqlite3_bind_zeroblob(statement, index, 0) == SQLITE_OK;
  return sqlite3_bind_blob(statement, index, value.data(), static_cast<int>(value.size()),
                           SQLITE_TRANSIENT) == SQLITE_OK;
}

} // namespace

void QVHandoffCopyIndex::Closer::operator()(sqlite3* database) const noexcept {
  sqlite3_close_v2(database);
}

QVHandoffCopyIndex::QVHandoffCopyIndex() = default;
QVHandoffCopyIndex::~QVHandoffCopyIndex() = default;

QVHandoffCopyIndex& QVHandoffCopyIndex::shared() {
  static QVHandoffCopyIndex index;
  return index;
}

bool QVHandoffCopyIndex::execute(const char* statement) {
  return sqlite3_exec(database_.get(), statement, nullptr, nullptr, nullptr) == SQLITE_OK;
}

bool QVHandoffCopyIndex::open() {
  // The state folder follows the environment, as the handoff folder does; a changed one is a new index.
  const std::string path = (fs::path(QVHandoffPaths::stateFolder()) / kDatabaseName).string();
  if (database_ && path == path_) return true;
  database_.reset();
  path_ = path;
  // Made 0600 before SQLite opens it: its journal files take the database's mode.
  (void)QVFileDescriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  sqlite3* database = nullptr;
  const int opened = sqlite3_open_v2(
      path.c_str(), &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
  database_.reset(database);
  // Two processes opening a fresh index at once: switching it to WAL can answer "locked" at once rather
  // than through the busy handler, so the set-up is tried again for as long as the busy timeout.
  const auto setUp = [&] {
    return execute("PRAGMA journal_mode=WAL") &&
           execute("CREATE TABLE IF NOT EXISTS tags (copy TEXT NOT NULL, name TEXT NOT NULL, value BLOB NOT "
                   "NULL, PRIMARY KEY (copy, name)) WITHOUT ROWID");
  };
  bool ready = opened == SQLITE_OK && sqlite3_busy_timeout(database, kBusyTimeoutMilliseconds) == SQLITE_OK;
  for (int waited = 0; ready && !setUp(); waited += kSetUpRetryMilliseconds) {
    const int code = sqlite3_errcode(database);
    ready = (code == SQLITE_BUSY || code == SQLITE_LOCKED) && waited < kBusyTimeoutMilliseconds;
    if (ready) std::this_thread::sleep_for(std::chrono::milliseconds(kSetUpRetryMilliseconds));
  }
  if (!ready) {
    QV_LOG_WARN("Couldn't open copy index at {}: {}", path,
                database ? sqlite3_errmsg(database) : "no memory");
    database_.reset();
    return false;
  }
  std::error_code ignored;
  fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write, fs::perm_options::replace, ignored);
  dropStaleLocked();
  return true;
}

bool QVHandoffCopyIndex::setTags(const std::string& copyPath, const Tags& tags) {
  std::lock_guard lock(mutex_);
  if (!open()) return false;
  const std::string copy = key(copyPath);
  // One transaction: a reader in another process sees the old entry or the new one, never half of each.
  if (!execute("BEGIN IMMEDIATE")) {
    QV_LOG_WARN("Couldn't record copy in index: {}", sqlite3_errmsg(database_.get()));
    return false;
  }
  bool done = true;
  {
    sqlite3_stmt* raw = nullptr;
    sqlite3_prepare_v2(database_.get(), "DELETE FROM tags WHERE copy = ?", -1, &raw, nullptr);
    const QVStatement remove(raw);
    done = remove && bindText(remove.get(), 1, copy) && sqlite3_step(remove.get()) == SQLITE_DONE;
  }
  sqlite3_stmt* raw = nullptr;
  sqlite3_prepare_v2(database_.get(), "INSERT INTO tags (copy, name, value) VALUES (?, ?, ?)", -1, &raw,
                     nullptr);
  const QVStatement insert(raw);
  done = done && insert;
  for (auto it = tags.begin(); done && it != tags.end(); ++it) {
    sqlite3_reset(insert.get());
    done = bindText(insert.get(), 1, copy) && bindText(insert.get(), 2, it->first) &&
           bindBlob(insert.get(), 3, it->second) && sqlite3_step(insert.get()) == SQLITE_DONE;
  }
  if (!done || !execute("COMMIT")) {
    QV_LOG_WARN("Couldn't record copy in index: {}", sqlite3_errmsg(database_.get()));
    execute("ROLLBACK");
    return false;
  }
  return true;
}

std::optional<QVHandoffCopyIndex::Tags> QVHandoffCopyIndex::tags(const std::string& copyPath) {
  std::lock_guard lock(mutex_);
  if (!open()) return std::nullopt;
  sqlite3_stmt* raw = nullptr;
  sqlite3_prepare_v2(database_.get(), "SELECT name, value FROM tags WHERE copy = ?", -1, &raw, nullptr);
  const QVStatement select(raw);
  if (!select || !bindText(select.get(), 1, key(copyPath))) return std::nullopt;
  Tags tags;
  int step = SQLITE_ROW;
  while ((step = sqlite3_step(select.get())) == SQLITE_ROW) {
    const auto* name = reinterpret_cast<const char*>(sqlite3_column_text(select.get(), 0));
    const auto* value = static_cast<const uint8_t*>(sqlite3_column_blob(select.get(), 1));
    const int size = sqlite3_column_bytes(select.get(), 1);
    tags[name ? name : ""] = value ? QVData(value, value + size) : QVData();
  }
  if (step != SQLITE_DONE) {
    QV_LOG_WARN("Couldn't read copy index: {}", sqlite3_errmsg(database_.get()));
    return std::nullopt;
  }
  if (tags.empty()) return std::nullopt;
  return tags;
}

void QVHandoffCopyIndex::removeTags(const std::string& copyPath, const std::vector<std::string>& names) {
  std::lock_guard lock(mutex_);
  if (!open()) return;
  sqlite3_stmt* raw = nullptr;
  const char* sql =
      names.empty() ? "DELETE FROM tags WHERE copy = ?" : "DELETE FROM tags WHERE copy = ? AND name = ?";
  sqlite3_prepare_v2(database_.get(), sql, -1, &raw, nullptr);
  const QVStatement remove(raw);
  if (!remove) return;
  const std::string copy = key(copyPath);
  if (names.empty()) {
    if (bindText(remove.get(), 1, copy)) sqlite3_step(remove.get());
    return;
  }
  for (const auto& name : names) {
    sqlite3_reset(remove.get());
    if (bindText(remove.get(), 1, copy) && bindText(remove.get(), 2, name)) sqlite3_step(remove.get());
  }
}

size_t QVHandoffCopyIndex::dropStale() {
  std::lock_guard lock(mutex_);
  return open() ? dropStaleLocked() : 0;
}

size_t QVHandoffCopyIndex::dropStaleLocked() {
  sqlite3_stmt* raw = nullptr;
  sqlite3_prepare_v2(database_.get(), "SELECT DISTINCT copy FROM tags", -1, &raw, nullptr);
  QVStatement select(raw);
  std::vector<std::string> gone;
  while (select && sqlite3_step(select.get()) == SQLITE_ROW) {
    const auto* copy = reinterpret_cast<const char*>(sqlite3_column_text(select.get(), 0));
    struct stat info;
    if (copy && lstat(copy, &info) != 0 && errno == ENOENT) gone.emplace_back(copy);
  }
  select.reset();
  raw = nullptr;
  sqlite3_prepare_v2(database_.get(), "DELETE FROM tags WHERE copy = ?", -1, &raw, nullptr);
  const QVStatement remove(raw);
  for (const auto& copy : gone) {
    sqlite3_reset(remove.get());
    if (remove && bindText(remove.get(), 1, copy)) sqlite3_step(remove.get());
  }
  return gone.size();
}
