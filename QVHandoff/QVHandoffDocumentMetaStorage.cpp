// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffDocumentMetaStorage.h"

#include "Foundation/QVCFree.h"
#include "Foundation/QVFileDescriptor.h"
#include "Foundation/QVFileOperations.h"
#include "Foundation/QVFolderWatcher.h"
#include "Foundation/QVLog.h"
#include "Foundation/QVMainQueue.h"
#include "QVHandoff/QVHandoffiCloudDocumentsPresenter.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

QV_LOG_SOURCE("QVHandoff/QVHandoffDocumentMetaStorage")

namespace {

using QVPlist = std::unique_ptr<void, QVCFree<&plist_free>>;
using QVPlistXML = std::unique_ptr<char, QVCFree<&plist_to_xml_free>>;

// A meta file is a few hundred bytes; anything far larger is not one and is not loaded whole.
constexpr size_t kMaxMetaFileSize = 64 * 1024;

std::string errorText(int code) {
  return QVError{QVPOSIXErrorDomain, code, {}}.description();
}

QVDate dateFromTimestamp(int64_t seconds, uint32_t nanoseconds) {
  return QVDate(std::chrono::duration_cast<QVDate::duration>(std::chrono::seconds(seconds) +
                                                             std::chrono::nanoseconds(nanoseconds)));
}

// statx, for the modification date at full precision and for telling "no attributes" from "no date".
struct ModificationDateLookup {
  bool attributesRead = false;
  std::optional<QVDate> date;
};

ModificationDateLookup lookUpModificationDate(const std::string& path) {
  struct statx info {};
  ModificationDateLookup lookup;
  if (statx(AT_FDCWD, path.c_str(), 0, STATX_MTIME, &info) != 0) return lookup;
  lookup.attributesRead = true;
  if (info.stx_mask & STATX_MTIME)
    lookup.date = dateFromTimestamp(info.stx_mtime.tv_sec, info.stx_mtime.tv_nsec);
  return lookup;
}

bool fileExists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

std::optional<std::string> loadContents(const std::string& path) {
  QVFileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return std::nullopt;
  std::string contents;
  char chunk[4096];
  while (true) {
    const ssize_t length = read(file.get(), chunk, sizeof chunk);
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) return std::nullopt;
    if (length == 0) break;
    contents.append(chunk, static_cast<size_t>(length));
    if (contents.size() > kMaxMetaFileSize) return std::nullopt;
  }
  return contents;
}

QVPlist dictionaryFromContents(const std::string& contents) {
  if (contents.empty()) return nullptr;
  plist_t root = nullptr;
  // Binary or XML: another device's tools may have rewritten the file in either form.
  plist_from_memory(contents.data(), static_cast<uint32_t>(contents.size()), &root);
  QVPlist plist(root);
  if (!plist || plist_get_node_type(plist.get()) != PLIST_DICT) return nullptr;
  return plist;
}

// The bytes of a string or data value; the stored types are not examined beyond that.
std::optional<std::string> bytesOfValue(plist_t node) {
  if (!node) return std::nullopt;
  uint64_t length = 0;
  const char* bytes = nullptr;
  switch (plist_get_node_type(node)) {
  case PLIST_STRING:
    bytes = plist_get_string_ptr(node, &length);
    break;
  case PLIST_DATA:
    bytes = plist_get_data_ptr(node, &length);
    break;
  default:
    return std::nullopt;
  }
  if (!bytes) return std::nullopt;
  return std::string(bytes, length);
}

bool writeAll(int fd, const char* bytes, size_t length) {
  while (length > 0) {
    const ssize_t written = write(fd, bytes, length);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes += written;
    length -= static_cast<size_t>(written);
  }
  return true;
}

// Writes beside `path` and renames over it, so that a reader (or a sync client) never sees half a file.
// Returns the modification date the file has from then on.
std::optional<QVDate> writeAtomically(const std::string& path, const char* bytes, size_t length) {
  std::string temporaryPath = path + ".XXXXXX";
  // mkostemp's 0600 stays: the file holds the key.
  QVFileDescriptor file(mkostemp(temporaryPath.data(), O_CLOEXEC));
  if (!file) return std::nullopt;
  struct stat info {};
  bool written =
      writeAll(file.get(), bytes, length) && fsync(file.get()) == 0 && fstat(file.get(), &info) == 0;
  written = file.close() && written;
  if (!written || rename(temporaryPath.c_str(), path.c_str()) != 0) {
    unlink(temporaryPath.c_str());
    return std::nullopt;
  }
  // The date of the written inode, not a fresh look at the path: another device's file may already be there.
  return dateFromTimestamp(info.st_mtim.tv_sec, static_cast<uint32_t>(info.st_mtim.tv_nsec));
}

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.rfind(prefix, 0) == 0;
}

bool endsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The names sync clients give a conflicting copy: "stem.sync-conflict-<date>-<device>.ext" and
// "stem (<who>'s conflicted copy <date>).ext", each also with the whole name in front of the marker.
bool isConflictCopyName(const std::string& name, const std::string& metaName) {
  const size_t dot = metaName.rfind('.');
  const std::string stem = dot == std::string::npos ? metaName : metaName.substr(0, dot);
  const std::string extension = dot == std::string::npos ? std::string() : metaName.substr(dot);
  const std::pair<std::string, std::string> forms[] = {{stem, extension}, {metaName, ""}};
  for (const auto& [front, back] : forms) {
    if (name.size() <= front.size() + back.size() || !startsWith(name, front) || !endsWith(name, back))
      continue;
    const std::string marker = name.substr(front.size(), name.size() - front.size() - back.size());
    if (startsWith(marker, ".sync-conflict-")) return true;
    if (startsWith(marker, " (") && endsWith(marker, ")") &&
        marker.find("conflicted copy") != std::string::npos) {
      return true;
    }
  }
  return false;
}

struct FileVersion {
  std::string path;
  QVDate date;
};

std::vector<FileVersion> conflictCopies(const std::filesystem::path& metaFile) {
  std::vector<FileVersion> copies;
  const std::string metaName = metaFile.filename().string();
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(metaFile.parent_path(), error)) {
    std::error_code typeError;
    if (!isConflictCopyName(entry.path().filename().string(), metaName) ||
        !entry.is_regular_file(typeError)) {
      continue;
    }
    if (const auto date = lookUpModificationDate(entry.path().string()).date) {
      copies.push_back({entry.path().string(), *date});
    }
  }
  return copies;
}

} // namespace

std::shared_ptr<QVHandoffDocumentMetaStorage>
QVHandoffDocumentMetaStorage::storageWithContainerURL(const std::string& containerPath) {
  auto storage = std::make_shared<QVHandoffDocumentMetaStorage>(
      Passkey{}, (std::filesystem::path(containerPath) / QVHandoffMetaFileName).string());
  storage->startUp();
  return storage;
}

QVHandoffDocumentMetaStorage::QVHandoffDocumentMetaStorage(Passkey, std::string metaFileURL)
    : metaFileURL_(std::move(metaFileURL)) {}

QVHandoffDocumentMetaStorage::~QVHandoffDocumentMetaStorage() {
  {
    std::lock_guard lock(observationMutex_);
    accountStateObservation_ = {};
    testedObservation_ = {};
  }
  stopObservingMetaFileChanges();
}

std::weak_ptr<QVHandoffDocumentMetaStorage> QVHandoffDocumentMetaStorage::weakSelf() {
  return std::static_pointer_cast<QVHandoffDocumentMetaStorage>(shared_from_this());
}

void QVHandoffDocumentMetaStorage::startUp() {
  if (QVHandoffiCloudDocumentsPresenter::isiCloudConfigured()) {
    handleiCloudConfigured();
    return;
  }
  std::lock_guard lock(observationMutex_);
  accountStateObservation_ = QVNotificationObservation(QVNotificationCenter::defaultCenter(),
                                                       QViCloudAccountStateDidChangeNotification, nullptr,
                                                       [weak = weakSelf()](const QVNotification&) {
                                                         if (auto self = weak.lock())
                                                           self->iCloudAccountStateDidChangeNotification();
                                                       });
}

void QVHandoffDocumentMetaStorage::setMaster(bool master) {
  QVHandoffMetaStorage::setMaster(master);
  if (master && QVHandoffiCloudDocumentsPresenter::isiCloudTested()) handleiCloudTested();
}

std::optional<QVDate> QVHandoffDocumentMetaStorage::savedMetaModificationDate() const {
  std::lock_guard lock(fileMutex_);
  return savedMetaModificationDate_;
}

std::optional<QVHandoffDocumentMetaStorage::MetaData>
QVHandoffDocumentMetaStorage::metaDataFromContents(const std::string& contents, bool* isDictionary) {
  const QVPlist dictionary = dictionaryFromContents(contents);
  if (isDictionary) *isDictionary = dictionary != nullptr;
  if (!dictionary) return std::nullopt;
  const auto serviceType = bytesOfValue(plist_dict_get_item(dictionary.get(), QVHandoffMetaServiceTypeKey));
  const auto key = bytesOfValue(plist_dict_get_item(dictionary.get(), QVHandoffMetaAES256KeyKey));
  if (!serviceType || serviceType->empty() || !key || key->empty()) return std::nullopt;
  return MetaData{*serviceType, QVData(key->begin(), key->end())};
}

bool QVHandoffDocumentMetaStorage::readMetaData() {
  std::lock_guard lock(fileMutex_);
  if (!fileExists(metaFileURL_)) {
    QV_LOG_INFO("Meta data file not found");
    return false;
  }
  // Dated before reading: a file replaced meanwhile then differs from the saved date and is read again.
  const auto date = metaModificationDate();
  const auto contents = loadContents(metaFileURL_);
  bool isDictionary = false;
  auto metaData = contents ? metaDataFromContents(*contents, &isDictionary) : std::nullopt;
  if (!isDictionary) {
    QV_LOG_ERROR("Couldn't read meta data dictionary");
    return false;
  }
  if (!metaData) {
    QV_LOG_ERROR("Meta data dictionary is invalid");
    return false;
  }
  QV_LOG_INFO("Meta data read serviceType({})", metaData->serviceType);
  setServiceType(std::move(metaData->serviceType));
  setAES256Key(std::move(metaData->AES256Key));
  savedMetaModificationDate_ = date;
  savedMetaContents_ = *contents;
  notifyDelegateAboutMetaChange();
  return true;
}

bool QVHandoffDocumentMetaStorage::writeMetaData() {
  std::lock_guard lock(fileMutex_);
  const std::string serviceType = this->serviceType();
  const QVData key = AES256Key();
  QVPlist dictionary(plist_new_dict());
  if (serviceType.empty() || key.empty() || !dictionary) {
    QV_LOG_ERROR("Couldn't create meta data dictionary");
    return false;
  }
  plist_dict_set_item(dictionary.get(), QVHandoffMetaServiceTypeKey, plist_new_string(serviceType.c_str()));
  plist_dict_set_item(dictionary.get(), QVHandoffMetaAES256KeyKey,
                      plist_new_data(reinterpret_cast<const char*>(key.data()), key.size()));
  char* xml = nullptr;
  uint32_t length = 0;
  plist_to_xml(dictionary.get(), &xml, &length);
  const QVPlistXML xmlText(xml);
  const auto date = xmlText ? writeAtomically(metaFileURL_, xmlText.get(), length) : std::nullopt;
  if (!date) {
    QV_LOG_ERROR("Couldn't write meta data dictionary");
    return false;
  }
  savedMetaModificationDate_ = date;
  savedMetaContents_.assign(xmlText.get(), length);
  notifyDelegateAboutMetaChange();
  return true;
}

std::optional<QVDate> QVHandoffDocumentMetaStorage::metaModificationDate() const {
  const ModificationDateLookup lookup = lookUpModificationDate(metaFileURL_);
  if (!lookup.attributesRead) {
    QV_LOG_ERROR("Couldn't get meta file attributes");
    return std::nullopt;
  }
  if (!lookup.date) {
    QV_LOG_ERROR("Meta file modification date not found");
    return std::nullopt;
  }
  return lookup.date;
}

void QVHandoffDocumentMetaStorage::handleMetaDataFileChange() {
  std::lock_guard lock(fileMutex_);
  const auto current = metaModificationDate();
  // The kernel dates files by its clock tick: another device's file written in the same tick as ours has
  // our date. Only our bytes make it the file we already hold.
  if (savedMetaModificationDate_ && current && *savedMetaModificationDate_ == *current &&
      loadContents(metaFileURL_) == savedMetaContents_) {
    return;
  }
  readMetaData();
}

void QVHandoffDocumentMetaStorage::ensureMetaDataFilePresented() {
  std::lock_guard lock(fileMutex_);
  if (readMetaData() || !master()) return;
  generateMeta();
  writeMetaData();
}

void QVHandoffDocumentMetaStorage::handleiCloudConfigured() {
  if (QVHandoffiCloudDocumentsPresenter::isiCloudTested()) {
    handleiCloudTested();
    return;
  }
  // The test's notification is queued on the main queue, so registering now cannot miss it.
  std::lock_guard lock(observationMutex_);
  testedObservation_ =
      QVNotificationObservation(QVNotificationCenter::defaultCenter(), QVHandoffiCloudTestedNotification,
                                nullptr, [weak = weakSelf()](const QVNotification&) {
                                  if (auto self = weak.lock()) self->handleiCloudTested();
                                });
}

void QVHandoffDocumentMetaStorage::handleiCloudTested() {
  {
    // setMaster may have got here first when the test ended in between; starting twice would read twice.
    std::lock_guard lock(observationMutex_);
    testedObservation_ = {};
  }
  // iCloudStorage() is never true for a synced folder: the local-file path is the only one.
  ensureMetaDataFilePresented();
  startObservingMetaFileChanges();
}

void QVHandoffDocumentMetaStorage::iCloudAccountStateDidChangeNotification() {
  const auto presenter = QVHandoffiCloudDocumentsPresenter::defaultPresenter();
  if (!presenter ||
      presenter->currentAccountState() != QVHandoffiCloudDocumentsPresenter::kAccountStateAvailable) {
    return;
  }
  performOnMainThreadSynchronouslyIfPossible([this] {
    {
      std::lock_guard lock(observationMutex_);
      accountStateObservation_ = {};
    }
    handleiCloudConfigured();
  });
}

void QVHandoffDocumentMetaStorage::startObservingMetaFileChanges() {
  // The watch is on the folder, so it also starts while the file is missing: a device whose sync client
  // delivers the file late reads it when it arrives.
  {
    std::lock_guard lock(watcherMutex_);
    if (watcher_) return;
    QVFolderWatcher::Callbacks callbacks;
    callbacks.fileChanged = [weak = weakSelf()](const std::string& name) {
      if (auto self = weak.lock()) self->metaFolderFileDidChange(name);
    };
    watcher_ = QVFolderWatcher::start(std::filesystem::path(metaFileURL_).parent_path().string(),
                                      std::move(callbacks));
    if (!watcher_) return;
  }
  // Settled once the watch is in place, so that a copy arriving in between is not missed; likewise another
  // device's file that landed between our own read or write (or our finding none) and the watch.
  resolveConflictsIfNeeded();
  if (fileExists(metaFileURL_)) handleMetaDataFileChange();
}

void QVHandoffDocumentMetaStorage::stopObservingMetaFileChanges() {
  std::unique_ptr<QVFolderWatcher> watcher;
  {
    std::lock_guard lock(watcherMutex_);
    watcher = std::move(watcher_);
  }
  // Stopped outside the lock: a callback that is running may be waiting for it.
}

void QVHandoffDocumentMetaStorage::metaFolderFileDidChange(const std::string& name) {
  const std::string metaName = std::filesystem::path(metaFileURL_).filename().string();
  if (name.empty() || name == metaName) presentedItemDidChange();
  if (name.empty() || isConflictCopyName(name, metaName)) presentedItemDidGainVersion();
}

void QVHandoffDocumentMetaStorage::presentedItemDidChange() {
  handleMetaDataFileChange();
}

void QVHandoffDocumentMetaStorage::presentedItemDidGainVersion() {
  resolveConflictsIfNeeded();
}

void QVHandoffDocumentMetaStorage::resolveConflictsIfNeeded() {
  std::lock_guard lock(fileMutex_);
  std::vector<FileVersion> copies = conflictCopies(metaFileURL_);
  if (copies.empty()) return;
  const auto newest =
      std::max_element(copies.begin(), copies.end(),
                       [](const FileVersion& a, const FileVersion& b) { return a.date < b.date; });
  // On a tie the meta file stays.
  const auto current = lookUpModificationDate(metaFileURL_).date;
  if (!current || newest->date > *current) {
    if (rename(newest->path.c_str(), metaFileURL_.c_str()) != 0) {
      QV_LOG_ERROR("Failed to resolve conflict for file version {}. Error: {}", newest->path,
                   errorText(errno));
      return;
    }
    copies.erase(newest);
  }
  bool removedAll = true;
  for (const auto& copy : copies) {
    if (unlink(copy.path.c_str()) != 0 && errno != ENOENT) {
      QV_LOG_ERROR("Failed to resolve conflict for file version {}. Error: {}", copy.path, errorText(errno));
      removedAll = false;
    }
  }
  if (!removedAll) return;
  QV_LOG_INFO("Did resolve conflicts for file at url {}", metaFileURL_);
  handleMetaDataFileChange();
}
