// SPDX-License-Identifier: MIT
#pragma once
// Pulls a source of bytes on a thread of its own, a few chunks ahead of its reader, so that producing the
// next chunk (reading a file, encrypting it) overlaps whatever the reader does with this one (sending it).

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

class QVReadAhead {
public:
  // Fills a buffer of the given capacity: how many bytes, 0 at the end, none on failure. Called on the
  // read-ahead thread only, one call at a time.
  using Pull = std::function<std::optional<size_t>(uint8_t* buffer, size_t capacity)>;

  // `chunksAhead` counts the chunks pulled that the reader has not started on: with one, a chunk is pulled
  // while the reader drains the last, and two chunks exist at most.
  QVReadAhead(Pull pull, size_t chunkCapacity, size_t chunksAhead = 1);
  // Stops pulling and waits for a pull under way: the source may go once this returns.
  ~QVReadAhead();
  QVReadAhead(const QVReadAhead&) = delete;
  QVReadAhead& operator=(const QVReadAhead&) = delete;

  // Up to `capacity` bytes of what was pulled, in order, waiting for them if need be; 0 at the end, none
  // after a failure.
  std::optional<size_t> read(uint8_t* buffer, size_t capacity);

private:
  struct Chunk {
    std::vector<uint8_t> bytes;
    size_t length = 0;
    size_t offset = 0;
  };
  void run();
  // Chunks that the reader has not started on. Under the mutex.
  size_t untouchedChunks() const;

  const Pull pull_;
  const size_t chunkCapacity_;
  const size_t chunksAhead_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Chunk> ready_;
  std::vector<std::vector<uint8_t>> spare_; // drained buffers, kept to be filled again
  bool stopping_ = false;
  bool ended_ = false;
  bool failed_ = false;
  std::thread thread_;
};
