// SPDX-License-Identifier: MIT
#pragma once
// The one cipher of the system as a stream: AES-256-CBC, zero IV, PKCS#7 padding. Documents pass through
// it chunk by chunk, so no document is ever whole in memory.

#include "Foundation/QVTypes.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

// Operation codes, with the values peers and log lines use.
inline constexpr uint32_t QVHandoffAES256OperationEncrypt = 0;
inline constexpr uint32_t QVHandoffAES256OperationDecrypt = 1;

struct evp_cipher_ctx_st;

class QVHandoffAES256Cryptor {
public:
  static std::unique_ptr<QVHandoffAES256Cryptor> encryptorWithKeyData(const QVData& keyData);
  static std::unique_ptr<QVHandoffAES256Cryptor> decryptorWithKeyData(const QVData& keyData);
  // None (with a log line) when the cipher cannot be set up. Keys are never refused: short ones are
  // zero-padded, long ones cut to 32 bytes.
  static std::unique_ptr<QVHandoffAES256Cryptor> initWithKeyData(const QVData& keyData,
                                                                 uint32_t forOperation);

  // AES's block: the unit that CBC holds back and that padding adds.
  static constexpr size_t kBlockSize = 16;

  QVHandoffAES256Cryptor(const QVHandoffAES256Cryptor&) = delete;
  QVHandoffAES256Cryptor& operator=(const QVHandoffAES256Cryptor&) = delete;
  ~QVHandoffAES256Cryptor();

  // The output for the next chunk; may be empty (CBC holds back incomplete blocks, and when decrypting
  // the last block). None on failure.
  std::optional<QVData> updateWithData(const uint8_t* bytes, size_t length);
  std::optional<QVData> updateWithData(const QVData& data) {
    return updateWithData(data.data(), data.size());
  }
  // The same into a buffer the caller keeps from chunk to chunk (grown when a chunk needs more room), so that
  // a stream allocates once rather than once per chunk. How many bytes at its start are output, or none.
  std::optional<size_t> updateWithData(const uint8_t* bytes, size_t length, QVData& reusedOutput);
  // Into a buffer of any room: as much as fits goes to `output`, the rest to the end of `overflow`, which
  // the caller hands out next (while it holds anything, everything goes there). The number of bytes
  // written to `output`, or none on failure.
  std::optional<size_t> updateWithData(const uint8_t* bytes, size_t length, std::span<uint8_t> output,
                                       QVData& overflow);
  // The last block(s): padding added when encrypting, checked and removed when decrypting. None on failure.
  std::optional<QVData> finish();
  // The same, as much as fits into `output` and the rest to the end of `overflow`.
  std::optional<size_t> finish(std::span<uint8_t> output, QVData& overflow);

  uint64_t maxBufferSize() const { return maxBufferSize_; }

private:
  struct ContextFree {
    void operator()(evp_cipher_ctx_st* context) const noexcept;
  };
  QVHandoffAES256Cryptor(std::unique_ptr<evp_cipher_ctx_st, ContextFree> context, uint32_t operation);
  QVData outputBufferForInputDataLength(uint64_t length, bool final);
  uint64_t outputLengthForInputDataLength(uint64_t length, bool final);
  std::optional<size_t> updateWithData(const uint8_t* bytes, size_t length, uint8_t* output, size_t capacity);

  std::unique_ptr<evp_cipher_ctx_st, ContextFree> cryptor_;
  uint64_t maxBufferSize_ = 0;
  uint32_t operation_;
};
