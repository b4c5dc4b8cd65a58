// SPDX-License-Identifier: MIT
#pragma once
// The receiving end of a save back: decrypts a peer's upload as it streams in into a private file in the
// destination's own folder, and when it is complete puts it over the original or beside it. An acknowledged
// upload is never overwritten: the size-and-date check is made again under a lock per path at the moment of
// the move, so of overlapping save backs the first replaces an unchanged original and the later ones land
// beside it under claimed names. A folder is never removed or replaced. Nothing is left behind by a dropped
// upload; what a killed process left is swept at the next start (sweepLeftovers).

#include "Foundation/QVTypes.h"
#include "QVHandoff/QVHandoffManager.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

class QVHandoffAES256Cryptor;
struct QVPrivateFile;

class QVHandoffSaveBackReceiver {
public:
  struct Context {
    QVData AES256Key;
    // The manager's move block. The default one is not called: the receiver moves atomically itself.
    QVHandoffMoveFileBlock moveFileBlock;
    // Posts a notification with the manager as object, on the main thread, and returns once it was delivered.
    std::function<void(const char* name, QVUserInfo userInfo)> postNotification;
    // The manager's fail notification for the original path.
    std::function<void(const std::string& path)> postDidFailNotification;
    // The upload now stands at `path`: the local record of that path loses the peer's marks.
    std::function<void(const std::string& path)> didSaveBack;
  };

  explicit QVHandoffSaveBackReceiver(Context context);
  ~QVHandoffSaveBackReceiver();
  QVHandoffSaveBackReceiver(const QVHandoffSaveBackReceiver&) = delete;
  QVHandoffSaveBackReceiver& operator=(const QVHandoffSaveBackReceiver&) = delete;

  // Each returns false when the connection must be dropped; the failure is logged.
  bool prepareForSaveBack(const std::map<std::string, std::string>& params);
  bool processSaveBackData(const uint8_t* bytes, size_t length);
  bool finishSaveBack();
  // The connection died: posts the fail notification unless the upload was saved.
  void connectionDidDie();

  // Where the upload was put (the original path, or the name chosen beside it).
  const std::string& saveBackFilePath() const { return saveBackFilePath_; }

  // Removes the private files of save backs that a killed process left. Called when the service starts.
  static void sweepLeftovers();

private:
  bool appendToSaveBackFile(const uint8_t* bytes, size_t length);
  bool createSaveBackFile(QVError* error);
  // Puts the complete file in place and sets saveBackFilePath_ to where it went.
  bool placeSaveBackFile(QVError* error);
  bool placeByLinking(bool replace, QVError* error);
  bool placeByMoveBlock(bool replace, QVError* error);
  bool originalIsUnchanged() const;
  void forgetSaveBackFile();

  void postSaveBackNotificationWithProgress(float progress);
  void postSaveBackRemoteDocumentNotificationWithName(const char* name);

  Context context_;
  bool defaultMove_ = false;
  std::unique_ptr<QVHandoffAES256Cryptor> saveBackDecryptor_;
  QVData saveBackPlaintext_;
  std::unique_ptr<QVPrivateFile> saveBackFile_;
  // The record of a named private file in the state folder, so that a killed process's file is found again.
  std::string pendingRecordPath_;
  uint64_t saveBackFileSize_ = 0;
  std::optional<QVDate> saveBackModificationDate_;
  uint64_t totalDecryptedData_ = 0;
  // The original as judged at the start of the upload; a different file at the move is a change.
  std::optional<std::pair<uint64_t, uint64_t>> originalIdentity_;
  std::string saveBackFilePath_;
  std::string originalSaveBackFilePath_;
  std::string filePathForSaveBackFailNotification_;
  uint64_t saveBackFilePageNumber_ = 0;
  QVPoint saveBackFilePDFPoint_;
};
