// SPDX-License-Identifier: MIT
#include "Foundation/QVReadAhead.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <numeric>
#include <thread>
#include <vector>

namespace {

// Pieces of 5 bytes counting up from 0; after `pieces` of them, the end or a failure.
QVReadAhead::Pull countingSource(std::atomic<int>& pulled, int pieces, bool failAtEnd) {
  return [&pulled, pieces, failAtEnd](uint8_t* buffer, size_t capacity) -> std::optional<size_t> {
    const int piece = pulled++;
    if (piece == pieces) return failAtEnd ? std::nullopt : std::optional<size_t>(0);
    EXPECT_EQ(capacity, 5u);
    std::iota(buffer, buffer + 5, static_cast<uint8_t>(piece * 5));
    return 5;
  };
}

TEST(QVReadAheadTest, HandsOutEveryPieceInOrderThenTheEndOrTheFailure) {
  std::vector<uint8_t> expected(50);
  std::iota(expected.begin(), expected.end(), 0);
  for (const bool failAtEnd : {false, true}) {
    std::atomic<int> pulled = 0;
    QVReadAhead ahead(countingSource(pulled, 10, failAtEnd), 5);
    std::vector<uint8_t> all;
    uint8_t slice[3];
    std::optional<size_t> read;
    while ((read = ahead.read(slice, sizeof slice)) && *read > 0)
      all.insert(all.end(), slice, slice + *read);
    EXPECT_EQ(all, expected) << "every byte before the end, failure or not";
    EXPECT_EQ(read.has_value(), !failAtEnd);
    EXPECT_EQ(ahead.read(slice, sizeof slice).has_value(), !failAtEnd) << "and so it stays";
  }

  // A reader that goes away early stops an endless source: one piece beyond what it read, or as many as
  // it asked to be ahead.
  for (const size_t chunksAhead : {size_t(1), size_t(3)}) {
    std::atomic<int> pulled = 0;
    {
      QVReadAhead ahead(countingSource(pulled, -1, false), 5, chunksAhead);
      uint8_t slice[5];
      ASSERT_EQ(ahead.read(slice, sizeof slice), 5u);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const int afterwards = pulled;
    EXPECT_LE(afterwards, 1 + static_cast<int>(chunksAhead));
    EXPECT_EQ(pulled, afterwards) << "nothing is pulled once the reader is gone";
  }
}

} // namespace
