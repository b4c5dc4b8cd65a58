// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffAES256Cipher.h"

#include "QVHandoff/QVHandoffAES256Cryptor.h"

#include "Foundation/QVCFree.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <climits>
#include <memory>

namespace {

using QVCipherContext = std::unique_ptr<EVP_CIPHER_CTX, QVCFree<&EVP_CIPHER_CTX_free>>;

// Peers copy the key into a zeroed area of this size and key the cipher with its first 32 bytes, so short
// keys are zero-padded and long ones cut. Never refused: a peer would accept them too.
constexpr size_t kKeyScratchSize = 264;
// EVP counts bytes in int; larger inputs go through in whole-block slices.
constexpr size_t kMaxSlice = size_t{1} << 30;
static_assert(kMaxSlice <= INT_MAX && kMaxSlice % QVHandoffAES256Cipher::kBlockSize == 0);

} // namespace

namespace QVHandoffAES256Cipher {

int32_t setUp(EVP_CIPHER_CTX* context, const QVData& keyData, uint32_t operation) {
  if (operation != QVHandoffAES256OperationEncrypt && operation != QVHandoffAES256OperationDecrypt) {
    return kParamError;
  }
  std::array<uint8_t, kKeyScratchSize> key{};
  std::copy_n(keyData.begin(), std::min(keyData.size(), key.size()), key.begin());
  const std::array<uint8_t, kBlockSize> zeroIV{};
  // PKCS#7 padding is EVP's default.
  const int ok = EVP_CipherInit_ex(context, EVP_aes_256_cbc(), nullptr, key.data(), zeroIV.data(),
                                   operation == QVHandoffAES256OperationEncrypt ? 1 : 0);
  OPENSSL_cleanse(key.data(), key.size());
  return ok == 1 ? kSuccess : kUnimplemented;
}

int32_t update(EVP_CIPHER_CTX* context, const uint8_t* bytes, size_t length, uint8_t* output, size_t capacity,
               size_t& produced) {
  produced = 0;
  // EVP may add a held-back block to what this chunk completes.
  if (capacity < length + kBlockSize) return kBufferTooSmall;
  while (length > 0) {
    const size_t slice = std::min(length, kMaxSlice);
    int written = 0;
    if (EVP_CipherUpdate(context, output + produced, &written, bytes, static_cast<int>(slice)) != 1) {
      return kParamError;
    }
    produced += static_cast<size_t>(written);
    bytes += slice;
    length -= slice;
  }
  return kSuccess;
}

int32_t finish(EVP_CIPHER_CTX* context, uint32_t operation, uint8_t* output, size_t capacity,
               size_t& produced) {
  produced = 0;
  if (capacity < kBlockSize) return kBufferTooSmall;
  int written = 0;
  if (EVP_CipherFinal_ex(context, output, &written) != 1) {
    // When decrypting this is bad padding or a last block cut short: the mark of a wrong key or a cut body.
    return operation == QVHandoffAES256OperationDecrypt ? kDecodeError : kParamError;
  }
  produced = static_cast<size_t>(written);
  return kSuccess;
}

int32_t crypt(const QVData& data, const QVData& keyData, uint32_t operation, QVData& output) {
  if (operation == QVHandoffAES256OperationDecrypt && data.size() % kBlockSize != 0) return kAlignmentError;
  QVCipherContext context(EVP_CIPHER_CTX_new());
  if (!context) return kMemoryFailure;
  if (const int32_t status = setUp(context.get(), keyData, operation); status != kSuccess) return status;
  output.resize(data.size() + kBlockSize);
  size_t updated = 0;
  size_t finished = 0;
  int32_t status = update(context.get(), data.data(), data.size(), output.data(), output.size(), updated);
  if (status == kSuccess) {
    status = finish(context.get(), operation, output.data() + updated, output.size() - updated, finished);
  }
  output.resize(status == kSuccess ? updated + finished : 0);
  return status;
}

} // namespace QVHandoffAES256Cipher
