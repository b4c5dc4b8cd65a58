// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffAES256Cryptor.h"
#include "QVHandoff/QVHandoffAES256Data.h"
#include "support/QVTestSupport.h"

#include <fmt/format.h>

#include <algorithm>

class QVHandoffAES256CryptorTest : public ::testing::Test {
protected:
  // The whole input through one cryptor in `chunk`-byte pieces, joined with what finish gives.
  static std::optional<QVData> stream(uint32_t operation, const QVData& key, const QVData& input,
                                      size_t chunk) {
    auto cryptor = QVHandoffAES256Cryptor::initWithKeyData(key, operation);
    if (!cryptor) return std::nullopt;
    QVData output;
    for (size_t at = 0; at < input.size(); at += chunk) {
      auto piece = cryptor->updateWithData(input.data() + at, std::min(chunk, input.size() - at));
      if (!piece) return std::nullopt;
      output.insert(output.end(), piece->begin(), piece->end());
    }
    auto last = cryptor->finish();
    if (last) last->insert(last->begin(), output.begin(), output.end());
    return last;
  }

  QVLogCapture log_;
};

TEST_F(QVHandoffAES256CryptorTest, WireBytesMatchAnIndependentImplementationForEveryKeyShape) {
  for (const size_t keyLength : {32, 16, 40, 0}) {
    for (const size_t size : {0, 1, 15, 16, 17, 100000}) {
      SCOPED_TRACE(fmt::format("key {} bytes, plaintext {} bytes", keyLength, size));
      const QVData key = QVTestBytes(keyLength, 7);
      const QVData plain = QVTestBytes(size, static_cast<uint32_t>(size) + 1);
      const QVData encrypted = QVHandoffAES256Data::encryptWithKeyData(plain, key).value_or(QVData{});
      EXPECT_EQ(encrypted.size(), 16 * (size / 16 + 1));
      EXPECT_TRUE(encrypted == QVOpenSSLCommand("-e", key, plain));
      EXPECT_TRUE(QVHandoffAES256Data::decryptWithKeyData(encrypted, key) == plain);
    }
  }
}

TEST_F(QVHandoffAES256CryptorTest, StreamingInAnyChunksEqualsOneShot) {
  const QVData key = QVTestBytes(32, 3);
  for (const QVData& plain : {QVData{}, QVTestBytes(100000, 4)}) {
    const QVData whole = *QVHandoffAES256Data::encryptWithKeyData(plain, key);
    for (const size_t chunk : {1, 15, 16, 100}) {
      SCOPED_TRACE(fmt::format("{} bytes in chunks of {}", plain.size(), chunk));
      EXPECT_TRUE(stream(QVHandoffAES256OperationEncrypt, key, plain, chunk) == whole);
      EXPECT_TRUE(stream(QVHandoffAES256OperationDecrypt, key, whole, chunk) == plain);
    }
  }
  EXPECT_EQ(QVHandoffAES256Cryptor::encryptorWithKeyData(key)->updateWithData(QVData{}), QVData{});
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(QVHandoffAES256CryptorTest, FailuresGiveNoResultAndTheirLine) {
  const QVData key = QVTestBytes(32, 3);
  const QVData plain = QVTestBytes(100000, 4);
  const QVData encrypted = *QVHandoffAES256Data::encryptWithKeyData(plain, key);

  // A wrong key shows up as bad padding (this key and body fail for certain: no luck involved).
  const QVData wrongKey = QVTestBytes(32, 5);
  EXPECT_EQ(stream(QVHandoffAES256OperationDecrypt, wrongKey, encrypted, 100), std::nullopt);
  EXPECT_TRUE(log_.contains("Couldn't final cryptor with result(-4304)", "error"));
  EXPECT_EQ(QVHandoffAES256Data::decryptWithKeyData(encrypted, wrongKey), std::nullopt);
  EXPECT_TRUE(log_.contains("Couldnt't crypt using operation(1) with result(-4304)", "error"));

  // A body cut mid-block, and an empty one: ciphertext is whole blocks, at least one.
  const QVData cut(encrypted.begin(), encrypted.begin() + 100);
  log_.clear();
  EXPECT_EQ(stream(QVHandoffAES256OperationDecrypt, key, cut, 16), std::nullopt);
  EXPECT_EQ(stream(QVHandoffAES256OperationDecrypt, key, QVData{}, 16), std::nullopt);
  EXPECT_EQ(log_.count("Couldn't final cryptor with result(-4304)"), 2u);
  EXPECT_EQ(QVHandoffAES256Data::decryptWithKeyData(cut, key), std::nullopt);
  EXPECT_EQ(QVHandoffAES256Data::decryptWithKeyData(QVData{}, key), std::nullopt);
  EXPECT_EQ(log_.count("Couldnt't crypt using operation(1) with result(-430"), 2u);

  // Operation codes other than 0 and 1.
  EXPECT_EQ(QVHandoffAES256Cryptor::initWithKeyData(key, 2), nullptr);
  EXPECT_TRUE(log_.contains("Couldn't create cryptor for operation(2) with result(-4300)", "error"));
}
