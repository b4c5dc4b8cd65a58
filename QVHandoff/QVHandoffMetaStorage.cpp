// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffMetaStorage.h"

#include "Foundation/QVLog.h"
#include "Foundation/QVMainQueue.h"
#include "Foundation/QVUUID.h"

#include <cerrno>
#include <fstream>

#include <openssl/rand.h>
#include <sys/random.h>

QV_LOG_SOURCE("QVHandoff/QVHandoffMetaStorage")

namespace {

constexpr size_t kAES256KeyLength = 32;

// The kernel's source, for when OpenSSL's generator cannot seed itself. Blocks rather than return less.
void fillFromKernel(uint8_t* bytes, size_t length) {
  size_t filled = 0;
  while (filled < length) {
    const ssize_t got = getrandom(bytes + filled, length - filled, 0);
    if (got > 0) {
      filled += static_cast<size_t>(got);
    } else if (got < 0 && errno != EINTR) {
      break;
    }
  }
  if (filled == length) return;
  // A kernel without getrandom still has the device.
  std::ifstream device("/dev/urandom", std::ios::binary);
  device.read(reinterpret_cast<char*>(bytes + filled), static_cast<std::streamsize>(length - filled));
}

} // namespace

QVData QVHandoffMetaStorage::randomAES256Key() {
  QVData key(kAES256KeyLength);
  if (RAND_bytes(key.data(), static_cast<int>(key.size())) != 1) {
    QV_LOG_WARN("Random generator failed, using the kernel's source");
    fillFromKernel(key.data(), key.size());
  }
  return key;
}

bool QVHandoffMetaStorage::master() const {
  std::lock_guard lock(mutex_);
  return master_;
}

void QVHandoffMetaStorage::setMaster(bool master) {
  std::lock_guard lock(mutex_);
  master_ = master;
}

std::shared_ptr<QVHandoffMetaStorageDelegate> QVHandoffMetaStorage::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void QVHandoffMetaStorage::setDelegate(std::weak_ptr<QVHandoffMetaStorageDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

std::string QVHandoffMetaStorage::serviceType() const {
  std::lock_guard lock(mutex_);
  return serviceType_;
}

void QVHandoffMetaStorage::setServiceType(std::string serviceType) {
  std::lock_guard lock(mutex_);
  serviceType_ = std::move(serviceType);
}

QVData QVHandoffMetaStorage::AES256Key() const {
  std::lock_guard lock(mutex_);
  return AES256Key_;
}

void QVHandoffMetaStorage::setAES256Key(QVData key) {
  std::lock_guard lock(mutex_);
  AES256Key_ = std::move(key);
}

void QVHandoffMetaStorage::generateMeta() {
  const std::string newServiceType = QVUUIDString();
  setServiceType(newServiceType);
  setAES256Key(makeAES256Key());
  QV_LOG_INFO("Meta data generated, serviceType({})", newServiceType);
}

void QVHandoffMetaStorage::notifyDelegateAboutMetaChange() {
  QV_LOG_INFO("Meta data did change");
  // Storages live in shared_ptrs; one that does not has nobody who could be told about it either.
  auto self = weak_from_this().lock();
  if (!self) return;
  QVMainQueue::main().post([self] {
    if (auto delegate = self->delegate()) delegate->metaDataStorageDidChange(self);
  });
}
