// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffSaveBackReceiver.h"

#include "Foundation/QVDateFormatting.h"
#include "Foundation/QVFileOperations.h"
#include "Foundation/QVLog.h"
#include "Foundation/QVPaths.h"
#include "Foundation/QVPrivateTemporaryFile.h"
#include "Foundation/QVUUID.h"
#include "QVHandoff/QVHandoffAES256Cryptor.h"
#include "QVHandoff/QVHandoffFileTags.h"
#include "QVHandoff/QVHandoffMessageCodec.h"
#include "QVHandoff/QVHandoffPaths.h"
#include "QVHandoff/QVHandoffProtocol.h"
#include "QVHandoff/QVHandoffRequestValues.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <mutex>
#include <string_view>

// Its lines are the connection's: hosts and tests match them by that operation.
QV_LOG_SOURCE_OF("QVHandoff/QVHandoffHTTPConnection", "QVHandoffHTTPConnection")

namespace fs = std::filesystem;

namespace {

// Every private file of a save back is named so; the sweep removes nothing else.
constexpr std::string_view kSaveBackFilePrefix = ".qvhandoff-save-back-";
// Claiming a name beside the original races with others claiming names; each lost race tries the next one.
constexpr int kClaimAttempts = 1000;

using MoveFunction = bool (*)(const std::string&, const std::string&, QVError*);

bool isDefaultMoveFileBlock(const QVHandoffMoveFileBlock& block) {
  const auto* given = block.target<MoveFunction>();
  const auto* standard = QVHandoffManagerDefaultMoveFileBlock.target<MoveFunction>();
  return given && standard && *given == *standard;
}

// Save backs of one path wait for each other at the move; unrelated paths share a stripe now and then.
std::mutex& lockForPath(const std::string& path) {
  static std::array<std::mutex, 64> stripes;
  return stripes[std::hash<std::string>{}(path) % stripes.size()];
}

using QVHandoffRequestValues::numberFromQueryValue;
using QVHandoffRequestValues::pointFromQueryValue;

std::optional<std::pair<uint64_t, uint64_t>> identityOfFile(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return std::nullopt;
  return std::pair<uint64_t, uint64_t>(info.st_dev, info.st_ino);
}

std::string pendingFolder() {
  return (fs::path(QVHandoffPaths::stateFolder()) / "save-backs").string();
}

// A symbolic link in the state folder pointing at the named private file: the one record a restart needs.
std::string recordPendingFile(const std::string& path) {
  const std::string folder = pendingFolder();
  QVCreateDirectory(folder);
  std::string record = (fs::path(folder) / QVUUIDString()).string();
  if (symlink(path.c_str(), record.c_str()) != 0) return {};
  return record;
}

void removePendingRecord(std::string& record) {
  if (!record.empty()) ::unlink(record.c_str());
  record.clear();
}

} // namespace

QVHandoffSaveBackReceiver::QVHandoffSaveBackReceiver(Context context)
    : context_(std::move(context)), defaultMove_(isDefaultMoveFileBlock(context_.moveFileBlock)) {}

QVHandoffSaveBackReceiver::~QVHandoffSaveBackReceiver() {
  forgetSaveBackFile();
}

void QVHandoffSaveBackReceiver::forgetSaveBackFile() {
  // An unnamed file vanishes with its descriptor; a named one is removed before its record.
  if (saveBackFile_ && !saveBackFile_->path.empty()) ::unlink(saveBackFile_->path.c_str());
  saveBackFile_.reset();
  removePendingRecord(pendingRecordPath_);
}

bool QVHandoffSaveBackReceiver::prepareForSaveBack(const std::map<std::string, std::string>& params) {
  forgetSaveBackFile();
  auto value = [&](const char* key) {
    const auto found = params.find(key);
    return found == params.end() ? std::string() : found->second;
  };
  saveBackDecryptor_ = QVHandoffAES256Cryptor::decryptorWithKeyData(context_.AES256Key);
  totalDecryptedData_ = 0;
  saveBackFileSize_ = numberFromQueryValue(value(QVHandoffSaveBackSizeQueryKey));
  saveBackModificationDate_ =
      QVHandoffMessageCodec::dateFormatter().dateFromString(value(QVHandoffSaveBackModificationDateQueryKey));
  originalSaveBackFilePath_ = value(QVHandoffSaveBackPathQueryKey);
  filePathForSaveBackFailNotification_ = originalSaveBackFilePath_;
  saveBackFilePageNumber_ = numberFromQueryValue(value(QVHandoffSaveBackPageNumberQueryKey));
  saveBackFilePDFPoint_ = pointFromQueryValue(value(QVHandoffSaveBackPDFPointQueryKey));
  originalIdentity_.reset();

  const std::string& path = originalSaveBackFilePath_;
  saveBackFilePath_ = path;
  // Without a destination (absent, or an invalid escape in it) the upload could only fail at the end.
  if (path.empty()) {
    QV_LOG_ERROR("Save back file path not found in request");
    return false;
  }
  QVError error;
  // A folder is never replaced, and a document is never received only to be refused at the end.
  if (QVIsFolderTarget(path)) {
    QV_LOG_ERROR("Couldn't move file on save back operation. Error: {}",
                 QVErrorFromErrno(EISDIR).description());
    return false;
  }
  if (!QVFileExists(path)) {
    const auto parent = fs::path(path).parent_path();
    if (!parent.empty()) QVCreateDirectory(parent.string());
  } else if (originalIsUnchanged()) {
    originalIdentity_ = identityOfFile(path);
  } else {
    // Changed here since the handoff: keep both versions, the upload lands beside the document.
    saveBackFilePath_ = QVGenerateMacStyleUniquePath(path, 0);
  }
  if (!createSaveBackFile(&error)) {
    QV_LOG_ERROR("Couldn't move file on save back operation. Error: {}", error.description());
    return false;
  }
  return true;
}

bool QVHandoffSaveBackReceiver::originalIsUnchanged() const {
  const auto attributes = QVAttributesOfItem(originalSaveBackFilePath_, nullptr);
  return attributes && attributes->fileSize == saveBackFileSize_ &&
         QVHandoffFileTags::datesAreSimilar(
             saveBackModificationDate_,
             QVHandoffFileTags::latestFileModificationDateForFileAtPath(originalSaveBackFilePath_));
}

bool QVHandoffSaveBackReceiver::createSaveBackFile(QVError* error) {
  // In the destination's own folder, so that the move is a rename on one file system.
  fs::path folder = fs::path(originalSaveBackFilePath_).parent_path();
  if (folder.empty()) folder = ".";
  std::optional<QVPrivateFile> file;
  // A host's move block is handed a path, so it gets a named file.
  if (defaultMove_) file = QVCreateUnnamedFile(folder.string(), error);
  if (!file) {
    // Recorded before it exists, so that no moment is left in which a kill would lose track of it.
    const std::string path = (folder / (std::string(kSaveBackFilePrefix) + QVUUIDString())).string();
    pendingRecordPath_ = recordPendingFile(path);
    file = QVCreatePrivateFileAtPath(path, error);
    if (!file) {
      removePendingRecord(pendingRecordPath_);
      return false;
    }
  }
  saveBackFile_ = std::make_unique<QVPrivateFile>(std::move(*file));
  return true;
}

bool QVHandoffSaveBackReceiver::appendToSaveBackFile(const uint8_t* bytes, size_t length) {
  if (QVWriteAll(saveBackFile_->descriptor.get(), bytes, length)) return true;
  // A short file must never replace the document.
  QV_LOG_ERROR("Couldn't write decrypted data on save back operation");
  return false;
}

bool QVHandoffSaveBackReceiver::processSaveBackData(const uint8_t* bytes, size_t length) {
  const auto plaintext = saveBackDecryptor_ && saveBackFile_
                             ? saveBackDecryptor_->updateWithData(bytes, length, saveBackPlaintext_)
                             : std::nullopt;
  if (!plaintext) {
    QV_LOG_ERROR("Couldn't continue descryption on save back operation");
    return false;
  }
  if (!appendToSaveBackFile(saveBackPlaintext_.data(), *plaintext)) return false;
  totalDecryptedData_ += *plaintext;
  // The denominator is the old document's size, so this may pass 1 or end below it.
  if (saveBackFileSize_ != 0) {
    postSaveBackNotificationWithProgress(static_cast<float>(totalDecryptedData_) /
                                         static_cast<float>(saveBackFileSize_));
  }
  return true;
}

bool QVHandoffSaveBackReceiver::finishSaveBack() {
  auto plaintext = saveBackDecryptor_ && saveBackFile_ ? saveBackDecryptor_->finish() : std::nullopt;
  if (!plaintext) {
    QV_LOG_ERROR("Couldn't finish decryption on save back operation");
    return false;
  }
  if (!appendToSaveBackFile(plaintext->data(), plaintext->size())) return false;
  // Durable before it is visible: a crash right after the rename must not leave an empty document.
  if (fsync(saveBackFile_->descriptor.get()) != 0) {
    QV_LOG_ERROR("Couldn't write decrypted data on save back operation");
    return false;
  }
  postSaveBackRemoteDocumentNotificationWithName(QVHandoffManagerWillSaveBackRemoteDocumentNotification);
  QVError error;
  if (!placeSaveBackFile(&error)) {
    QV_LOG_ERROR("Couldn't move file on save back operation. Error: {}", error.description());
    return false;
  }
  forgetSaveBackFile();
  if (context_.didSaveBack) context_.didSaveBack(saveBackFilePath_);
  postSaveBackNotificationWithProgress(1.0f);
  postSaveBackRemoteDocumentNotificationWithName(QVHandoffManagerDidSaveBackRemoteDocumentNotification);
  filePathForSaveBackFailNotification_.clear();
  return true;
}

bool QVHandoffSaveBackReceiver::placeSaveBackFile(QVError* error) {
  const std::string& original = originalSaveBackFilePath_;
  std::lock_guard lock(lockForPath(fs::path(original).lexically_normal().string()));
  // Checked again now: another save back, or the host, may have changed the original while this one streamed.
  if (QVIsFolderTarget(original)) {
    if (error) *error = QVErrorFromErrno(EISDIR);
    return false;
  }
  const bool exists = QVFileExists(original);
  const bool replace =
      exists && originalIdentity_ && identityOfFile(original) == originalIdentity_ && originalIsUnchanged();
  if (exists) QVCopyOwnerModeAndAttributes(original, saveBackFile_->descriptor.get());
  const bool placed = defaultMove_ ? placeByLinking(replace, error) : placeByMoveBlock(replace, error);
  if (placed) QVSyncParentFolder(saveBackFilePath_);
  return placed;
}

// Replacing goes through a named link and a rename, so the original is the old file or the whole new one;
// landing beside it links the file to a name that is claimed atomically and can never be taken twice.
bool QVHandoffSaveBackReceiver::placeByLinking(bool replace, QVError* error) {
  const std::string& original = originalSaveBackFilePath_;
  const int descriptor = saveBackFile_->descriptor.get();
  if (replace) {
    std::string source = saveBackFile_->path;
    if (source.empty()) {
      source =
          (fs::path(original).parent_path() / (std::string(kSaveBackFilePrefix) + QVUUIDString())).string();
      pendingRecordPath_ = recordPendingFile(source);
      if (!QVLinkOpenFile(descriptor, source, error)) return false;
      saveBackFile_->path = source;
    }
    if (!QVMoveItemReplacing(source, original, error)) return false;
    saveBackFile_->path.clear();
    saveBackFilePath_ = original;
    return true;
  }
  std::string candidate = QVFileExists(original) ? QVGenerateMacStyleUniquePath(original, 0) : original;
  for (int attempt = 0; attempt < kClaimAttempts; ++attempt) {
    if (QVLinkOpenFile(descriptor, candidate, error)) {
      saveBackFilePath_ = candidate;
      return true;
    }
    if (error && error->code != EEXIST) return false;
    candidate = QVGenerateMacStyleUniquePath(original, 0);
  }
  return false;
}

// A host's block is handed the named file; a name beside the original is claimed with an empty file first.
bool QVHandoffSaveBackReceiver::placeByMoveBlock(bool replace, QVError* error) {
  const std::string& original = originalSaveBackFilePath_;
  std::string destination = original;
  bool claimed = false;
  if (!replace) {
    std::string candidate = QVFileExists(original) ? QVGenerateMacStyleUniquePath(original, 0) : original;
    for (int attempt = 0; attempt < kClaimAttempts && !claimed; ++attempt) {
      const QVFileDescriptor placeholder(
          ::open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
      if (placeholder) {
        destination = candidate;
        claimed = true;
      } else if (errno != EEXIST) {
        if (error) *error = QVErrorFromErrno(errno);
        return false;
      } else {
        candidate = QVGenerateMacStyleUniquePath(original, 0);
      }
    }
    if (!claimed) {
      if (error) *error = QVErrorFromErrno(EEXIST);
      return false;
    }
  }
  saveBackFile_->descriptor.reset();
  if (!context_.moveFileBlock || !context_.moveFileBlock(saveBackFile_->path, destination, error)) {
    if (claimed) ::unlink(destination.c_str());
    return false;
  }
  saveBackFile_->path.clear();
  saveBackFilePath_ = destination;
  return true;
}

void QVHandoffSaveBackReceiver::connectionDidDie() {
  forgetSaveBackFile();
  if (filePathForSaveBackFailNotification_.empty()) return;
  const std::string path = std::exchange(filePathForSaveBackFailNotification_, {});
  if (context_.postDidFailNotification) context_.postDidFailNotification(path);
}

void QVHandoffSaveBackReceiver::postSaveBackNotificationWithProgress(float progress) {
  if (saveBackFilePath_.empty() || !context_.postNotification) return;
  context_.postNotification(
      QVHandoffManagerSaveBackFileProgressNotification,
      {{QVHandoffManagerFilePathKey, saveBackFilePath_}, {QVHandoffManagerProgressKey, progress}});
}

void QVHandoffSaveBackReceiver::postSaveBackRemoteDocumentNotificationWithName(const char* name) {
  if (saveBackFilePath_.empty() || originalSaveBackFilePath_.empty() || !context_.postNotification) return;
  context_.postNotification(name, {{QVHandoffManagerFilePathKey, saveBackFilePath_},
                                   {QVHandoffManagerOriginalFilePathKey, originalSaveBackFilePath_},
                                   {QVHandoffManagerPageNumberKey, saveBackFilePageNumber_},
                                   {QVHandoffManagerPDFPointKey, saveBackFilePDFPoint_}});
}

void QVHandoffSaveBackReceiver::sweepLeftovers() {
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(pendingFolder(), ignored)) {
    std::error_code error;
    const fs::path target = fs::read_symlink(entry.path(), error);
    // Only a file named as this receiver names them: a damaged record must not delete a user's document.
    if (!error && target.filename().string().starts_with(kSaveBackFilePrefix)) ::unlink(target.c_str());
    ::unlink(entry.path().c_str());
  }
}
