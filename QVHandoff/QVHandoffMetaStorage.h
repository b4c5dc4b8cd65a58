// SPDX-License-Identifier: MIT
#pragma once
// Holds the meta data every installation of one user shares: the service type and the AES-256 key.
// Subclasses decide where it is kept and how it reaches the other devices.

#include "Foundation/QVTypes.h"
#include "QVHandoff/QVHandoffExport.h"

#include <memory>
#include <mutex>
#include <string>

class QVHandoffMetaStorage;

/// The meta file's key of the DNS-SD service type (a string).
inline constexpr const char* QVHandoffMetaServiceTypeKey = "serviceType";
/// The meta file's key of the shared AES-256 key (data).
inline constexpr const char* QVHandoffMetaAES256KeyKey = "aes256Key";
/// The meta file's name, at the top of the synced container folder; hidden.
inline constexpr const char* QVHandoffMetaFileName = ".com.quorvel.paperloom.handoff";

class QVHANDOFF_EXPORT QVHandoffMetaStorageDelegate {
public:
  virtual ~QVHandoffMetaStorageDelegate() = default;
  /// The storage's service type and key now hold new values. Always called on the main queue.
  virtual void metaDataStorageDidChange(const std::shared_ptr<QVHandoffMetaStorage>& storage) = 0;
};

class QVHANDOFF_EXPORT QVHandoffMetaStorage : public std::enable_shared_from_this<QVHandoffMetaStorage> {
public:
  virtual ~QVHandoffMetaStorage() = default;

  /// 32 bytes from the system's cryptographic random source.
  static QVData randomAES256Key();

  /// The master storage is the one whose service this installation publishes; only it makes missing meta
  /// data. Any thread.
  bool master() const;
  virtual void setMaster(bool master);
  /// Held weakly: null once the delegate is gone.
  std::shared_ptr<QVHandoffMetaStorageDelegate> delegate() const;
  void setDelegate(std::weak_ptr<QVHandoffMetaStorageDelegate> delegate);
  /// Written on the storage's own threads, read by the delegate on the main queue: hence the lock.
  std::string serviceType() const;
  void setServiceType(std::string serviceType);
  QVData AES256Key() const;
  void setAES256Key(QVData key);

  /// A fresh service type and key; neither persisted nor announced (the caller writes, the write announces).
  void generateMeta();
  /// Tells the delegate later, on the main queue, never on the caller's stack.
  void notifyDelegateAboutMetaChange();

protected:
  /// Where generateMeta takes its key; a subclass may supply its own source.
  virtual QVData makeAES256Key() const { return randomAES256Key(); }

private:
  mutable std::mutex mutex_;
  bool master_ = false;
  std::weak_ptr<QVHandoffMetaStorageDelegate> delegate_;
  std::string serviceType_;
  QVData AES256Key_;
};
