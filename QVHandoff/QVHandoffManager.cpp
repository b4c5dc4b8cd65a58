#include "QVHandoff/QVHandoffManager.h"

QVHandoffManager::QVHandoffManager()
    : copyFileBlock_(QVHandoffManagerDefaultCopyFileBlock),
      moveFileBlock_(QVHandoffManagerDefaultMoveFileBlock),
      fileAttributesBlock_(QVHandoffManagerDefaultFileAttributesBlock) {}

std::shared_ptr<QVHandoffManager> QVHandoffManager::defaultManager() {
  // Never destroyed: connection and DNS-SD threads may still call into it while the process exits.
  static const auto* shared = new std::shared_ptr<QVHandoffManager>(std::make_shared<QVHandoffManager>());
  return *shared;
}

QVError QVHandoffManager::internalError() {
  return QVError{QVHandoffErrorDomain, 0, {}};
}

namespace {

// The blocks are replaced by the host while connection threads call them: each access takes the lock.
template <class Block> Block lockedCopy(std::mutex& mutex, const Block& block) {
  std::lock_guard lock(mutex);
  return block;
}

template <class Block> void lockedAssign(std::mutex& mutex, Block& slot, Block block) {
  std::lock_guard lock(mutex);
  slot = std::move(block);
}

} // namespace

QVHandoffCopyFileBlock QVHandoffManager::copyFileBlock() const {
  return lockedCopy(blocksMutex_, copyFileBlock_);
}

void QVHandoffManager::setCopyFileBlock(QVHandoffCopyFileBlock block) {
  lockedAssign(blocksMutex_, copyFileBlock_, std::move(block));
}

QVHandoffMoveFileBlock QVHandoffManager::moveFileBlock() const {
  return lockedCopy(blocksMutex_, moveFileBlock_);
}

void QVHandoffManager::setMoveFileBlock(QVHandoffMoveFileBlock block) {
  lockedAssign(blocksMutex_, moveFileBlock_, std::move(block));
}

QVHandoffFileAttributesBlock QVHandoffManager::fileAttributesBlock() const {
  return lockedCopy(blocksMutex_, fileAttributesBlock_);
}

void QVHandoffManager::setFileAttributesBlock(QVHandoffFileAttributesBlock block) {
  lockedAssign(blocksMutex_, fileAttributesBlock_, std::move(block));
}

QVHandoffManager::~QVHandoffManager() = default;
