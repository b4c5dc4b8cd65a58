// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffAES256Cryptor.h"

#include "Foundation/QVLog.h"
#include "QVHandoff/QVHandoffAES256Cipher.h"

#include <openssl/evp.h>

#include <algorithm>
#include <utility>

QV_LOG_SOURCE("QVHandoff/QVHandoffAES256Cryptor")

namespace Cipher = QVHandoffAES256Cipher;

void QVHandoffAES256Cryptor::ContextFree::operator()(evp_cipher_ctx_st* context) const noexcept {
  EVP_CIPHER_CTX_free(context);
}

std::unique_ptr<QVHandoffAES256Cryptor> QVHandoffAES256Cryptor::encryptorWithKeyData(const QVData& keyData) {
  return initWithKeyData(keyData, QVHandoffAES256OperationEncrypt);
}

std::unique_ptr<QVHandoffAES256Cryptor> QVHandoffAES256Cryptor::decryptorWithKeyData(const QVData& keyData) {
  return initWithKeyData(keyData, QVHandoffAES256OperationDecrypt);
}

std::unique_ptr<QVHandoffAES256Cryptor> QVHandoffAES256Cryptor::initWithKeyData(const QVData& keyData,
                                                                                uint32_t forOperation) {
  std::unique_ptr<evp_cipher_ctx_st, ContextFree> context(EVP_CIPHER_CTX_new());
  const int32_t status =
      context ? Cipher::setUp(context.get(), keyData, forOperation) : Cipher::kMemoryFailure;
  if (status != Cipher::kSuccess) {
    // %d of the operation code, as peers print it.
    QV_LOG_ERROR("Couldn't create cryptor for operation({}) with result({})",
                 static_cast<int32_t>(forOperation), status);
    return nullptr;
  }
  return std::unique_ptr<QVHandoffAES256Cryptor>(
      new QVHandoffAES256Cryptor(std::move(context), forOperation));
}

QVHandoffAES256Cryptor::QVHandoffAES256Cryptor(std::unique_ptr<evp_cipher_ctx_st, ContextFree> context,
                                               uint32_t operation)
    : cryptor_(std::move(context)), operation_(operation) {}

QVHandoffAES256Cryptor::~QVHandoffAES256Cryptor() = default;

std::optional<QVData> QVHandoffAES256Cryptor::updateWithData(const uint8_t* bytes, size_t length) {
  QVData output = outputBufferForInputDataLength(length, false);
  const auto produced = updateWithData(bytes, length, output.data(), output.size());
  if (!produced) return std::nullopt;
  output.resize(*produced);
  return output;
}

std::optional<size_t> QVHandoffAES256Cryptor::updateWithData(const uint8_t* bytes, size_t length,
                                                             QVData& reusedOutput) {
  const auto size = static_cast<size_t>(outputLengthForInputDataLength(length, false));
  if (reusedOutput.size() < size) reusedOutput.resize(size);
  return updateWithData(bytes, length, reusedOutput.data(), reusedOutput.size());
}

std::optional<size_t> QVHandoffAES256Cryptor::updateWithData(const uint8_t* bytes, size_t length,
                                                             uint8_t* output, size_t capacity) {
  outputLengthForInputDataLength(length, false);
  size_t produced = 0;
  const int32_t status = Cipher::update(cryptor_.get(), bytes, length, output, capacity, produced);
  if (status != Cipher::kSuccess) {
    QV_LOG_ERROR("Couldn't update cryptor with result({})", status);
    return std::nullopt;
  }
  return produced;
}

namespace {

// As much of `bytes` as fits into `output`, the rest after `overflow`; once something waits there, all of
// it does, so that the stream keeps its order.
size_t spill(const QVData& bytes, std::span<uint8_t> output, QVData& overflow) {
  const size_t fitting = overflow.empty() ? std::min(bytes.size(), output.size()) : 0;
  std::copy_n(bytes.begin(), fitting, output.begin());
  overflow.insert(overflow.end(), bytes.begin() + static_cast<std::ptrdiff_t>(fitting), bytes.end());
  return fitting;
}

} // namespace

std::optional<size_t> QVHandoffAES256Cryptor::updateWithData(const uint8_t* bytes, size_t length,
                                                             std::span<uint8_t> output, QVData& overflow) {
  // The cipher writes straight into the output, which must leave it a block of room; the input's last
  // bytes go through a small buffer of their own.
  const size_t direct = overflow.empty() && output.size() > Cipher::kBlockSize
                            ? std::min(length, output.size() - Cipher::kBlockSize)
                            : 0;
  const auto produced = direct > 0 ? updateWithData(bytes, direct, output.data(), output.size()) : 0;
  if (!produced) return std::nullopt;
  const auto rest = updateWithData(bytes + direct, length - direct);
  if (!rest) return std::nullopt;
  return *produced + spill(*rest, output.subspan(*produced), overflow);
}

std::optional<QVData> QVHandoffAES256Cryptor::finish() {
  QVData output = outputBufferForInputDataLength(maxBufferSize_, true);
  size_t produced = 0;
  const int32_t status = Cipher::finish(cryptor_.get(), operation_, output.data(), output.size(), produced);
  if (status != Cipher::kSuccess) {
    QV_LOG_ERROR("Couldn't final cryptor with result({})", status);
    return std::nullopt;
  }
  output.resize(produced);
  return output;
}

std::optional<size_t> QVHandoffAES256Cryptor::finish(std::span<uint8_t> output, QVData& overflow) {
  const auto last = finish();
  if (!last) return std::nullopt;
  return spill(*last, output, overflow);
}

QVData QVHandoffAES256Cryptor::outputBufferForInputDataLength(uint64_t length, bool final) {
  return QVData(outputLengthForInputDataLength(length, final));
}

uint64_t QVHandoffAES256Cryptor::outputLengthForInputDataLength(uint64_t length, bool final) {
  // An update may release one held-back block besides what the chunk completes; the final step writes at
  // most one block however much came before, so its buffer stays small even after big chunks.
  const uint64_t size = final ? Cipher::kBlockSize : length + Cipher::kBlockSize;
  maxBufferSize_ = std::max(maxBufferSize_, size);
  return size;
}
