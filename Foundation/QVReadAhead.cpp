// SPDX-License-Identifier: MIT
#include "Foundation/QVReadAhead.h"

#include "Foundation/QVLog.h"

#include <algorithm>
#include <cstring>
#include <system_error>

QV_LOG_SOURCE("Foundation/QVReadAhead")

QVReadAhead::QVReadAhead(Pull pull, size_t chunkCapacity, size_t chunksAhead)
    : pull_(std::move(pull)), chunkCapacity_(std::max<size_t>(chunkCapacity, 1)),
      chunksAhead_(std::max<size_t>(chunksAhead, 1)) {
  try {
    thread_ = std::thread([this] { run(); });
  } catch (const std::system_error& error) {
    // Without a thread of its own the reader pulls for itself (see read).
    QV_LOG_DEBUG("Couldn't start reading ahead ({})", error.what());
  }
}

QVReadAhead::~QVReadAhead() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void QVReadAhead::run() {
  while (true) {
    std::vector<uint8_t> bytes;
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [&] { return stopping_ || untouchedChunks() < chunksAhead_; });
      if (stopping_) return;
      if (!spare_.empty()) {
        bytes = std::move(spare_.back());
        spare_.pop_back();
      }
    }
    if (bytes.size() < chunkCapacity_) bytes.resize(chunkCapacity_);
    const auto length = pull_(bytes.data(), bytes.size());
    {
      std::lock_guard lock(mutex_);
      if (!length || *length > bytes.size()) {
        failed_ = ended_ = true;
      } else if (*length == 0) {
        ended_ = true;
      } else {
        ready_.push_back(Chunk{std::move(bytes), *length, 0});
      }
    }
    changed_.notify_all();
    if (!length || *length == 0) return;
  }
}

size_t QVReadAhead::untouchedChunks() const {
  return ready_.size() - (!ready_.empty() && ready_.front().offset > 0 ? 1 : 0);
}

std::optional<size_t> QVReadAhead::read(uint8_t* buffer, size_t capacity) {
  if (!thread_.joinable()) return pull_(buffer, capacity);
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return !ready_.empty() || ended_; });
  if (ready_.empty()) return failed_ ? std::nullopt : std::optional<size_t>(0);
  Chunk& chunk = ready_.front();
  const bool started = chunk.offset == 0;
  const size_t length = std::min(capacity, chunk.length - chunk.offset);
  std::memcpy(buffer, chunk.bytes.data() + chunk.offset, length);
  chunk.offset += length;
  const bool drained = chunk.offset == chunk.length;
  if (drained) {
    spare_.push_back(std::move(chunk.bytes));
    ready_.pop_front();
  }
  lock.unlock();
  // Starting on a chunk frees the puller as much as finishing one.
  if (started || drained) changed_.notify_all();
  return length;
}
