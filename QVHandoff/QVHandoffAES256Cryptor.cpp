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
  size_t produced = 0;
  const int32_t status =
      Cipher::update(cryptor_.get(), bytes, length, output.data(), output.size(), produced);
  if (status != Cipher::kSuccess) {
    QV_LOG_ERROR("Couldn't update cryptor with result({})", status);
    return std::nullopt;
  }
  output.resize(produced);
  return output;
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

QVData QVHandoffAES256Cryptor::outputBufferForInputDataLength(uint64_t length, bool final) {
  // An update may release one held-back block besides what the chunk completes; the final step writes at
  // most one block however much came before, so its buffer stays small even after big chunks.
  const uint64_t size = final ? Cipher::kBlockSize : length + Cipher::kBlockSize;
  maxBufferSize_ = std::max(maxBufferSize_, size);
  return QVData(size);
}
