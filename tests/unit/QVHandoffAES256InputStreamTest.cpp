// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffAES256InputStream.h"
#include "Foundation/QVMainQueue.h"
#include "QVHandoff/QVHandoffAES256Data.h"
#include "support/QVTestSupport.h"

namespace {

class QVHandoffAES256InputStreamTest : public ::testing::Test {
protected:
  std::shared_ptr<QVHandoffAES256InputStream> stream(const QVData& content) {
    QVWriteFile(folder_.file("Doc.pdf"), content);
    auto stream = QVHandoffAES256InputStream::streamForFileAtPath(folder_.file("Doc.pdf"), key_);
    stream->setProgressHandler([this](float progress) { progress_.push_back(progress); });
    stream->open();
    return stream;
  }
  // Everything the stream hands out to a reader of `capacity`, checking each slice's size.
  static QVData readAll(QVHandoffAES256InputStream& stream, size_t capacity) {
    QVData all;
    QVData slice(capacity);
    for (int calls = 0; stream.hasBytesAvailable() && calls < 1000; ++calls) {
      const uint64_t length = stream.read(slice.data(), capacity);
      EXPECT_LE(length, capacity);
      all.insert(all.end(), slice.begin(), slice.begin() + static_cast<std::ptrdiff_t>(length));
    }
    EXPECT_EQ(stream.read(slice.data(), capacity), 0u);
    return all;
  }

  QVTemporaryFolder folder_;
  const QVData key_ = QVTestBytes(32, 3);
  std::vector<float> progress_;
};

TEST_F(QVHandoffAES256InputStreamTest, HandsOutTheCipherTextOfTheWholeFileInAnySlices) {
  const QVData content = QVTestBytes(100);
  const QVData cipher = QVHandoffAES256Data::encryptWithKeyData(content, key_).value();
  for (const size_t capacity : {size_t(16), size_t(7), size_t(4096)}) {
    progress_.clear();
    const auto source = stream(content);
    EXPECT_EQ(source->streamStatus(), QVStreamStatus::Open);
    EXPECT_TRUE(readAll(*source, capacity) == cipher) << capacity;
    EXPECT_EQ(source->streamStatus(), QVStreamStatus::AtEnd);
    QVMainQueue::main().drain();
    ASSERT_FALSE(progress_.empty());
    EXPECT_EQ(progress_.back(), 1.0f);
    EXPECT_EQ(progress_.size(), capacity >= 100 ? 1u : (100 + capacity - 1) / capacity) << capacity;
  }

  // Larger files, read in slices that alternate between room for whole blocks (encrypted where they are
  // read) and odd sizes that leave cipher text waiting and the file at odd offsets.
  const QVData large = QVTestBytes(10007);
  const QVData largeCipher = QVHandoffAES256Data::encryptWithKeyData(large, key_).value();
  for (const auto& capacities : {std::vector<size_t>{33}, std::vector<size_t>{1000}, std::vector<size_t>{1000, 7},
                                 std::vector<size_t>{4096, 4097, 20}}) {
    const auto source = stream(large);
    QVData all;
    QVData slice(4097);
    for (size_t call = 0; source->hasBytesAvailable() && call < 1000; ++call) {
      const size_t capacity = capacities[call % capacities.size()];
      const uint64_t length = source->read(slice.data(), capacity);
      ASSERT_LE(length, capacity);
      all.insert(all.end(), slice.begin(), slice.begin() + static_cast<std::ptrdiff_t>(length));
    }
    EXPECT_TRUE(all == largeCipher) << capacities.size() << " capacities from " << capacities.front();
  }

  // Nothing to read: no padding block either, and no progress.
  progress_.clear();
  EXPECT_TRUE(readAll(*stream({}), 16).empty());
  QVLogCapture log;
  const auto missing = QVHandoffAES256InputStream::streamForFileAtPath(folder_.file("Missing.pdf"), key_);
  EXPECT_TRUE(log.contains("Couldn't open file handle at path " + folder_.file("Missing.pdf"), "error"));
  EXPECT_EQ(missing->streamStatus(), QVStreamStatus::AtEnd);
  EXPECT_TRUE(readAll(*missing, 16).empty());
  QVMainQueue::main().drain();
  EXPECT_TRUE(progress_.empty());
}

TEST_F(QVHandoffAES256InputStreamTest, AClosedStreamReportsNoMoreProgress) {
  const auto source = stream(QVTestBytes(100));
  // Ten plain bytes make no block yet; twenty make one, of which 6 bytes stay behind.
  uint8_t slice[10];
  ASSERT_EQ(source->read(slice, 10), 0u);
  ASSERT_EQ(source->read(slice, 10), 10u);
  source->close();
  EXPECT_EQ(source->streamStatus(), QVStreamStatus::Closed);
  QVMainQueue::main().drain();
  EXPECT_TRUE(progress_.empty());
}

} // namespace
