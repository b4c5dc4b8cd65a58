// SPDX-License-Identifier: MIT
#pragma once
// What the streaming and the one-shot cipher share: the key preparation, the fixed settings and the status
// values their failures are logged with, so that a body encrypted by one form decrypts in the other and on
// every peer. Internal to the framework.

#include "Foundation/QVTypes.h"

#include <cstddef>
#include <cstdint>

struct evp_cipher_ctx_st;

namespace QVHandoffAES256Cipher {

// The status values peers log for cipher failures; ours map onto them so that lines read alike.
inline constexpr int32_t kSuccess = 0;
inline constexpr int32_t kParamError = -4300;
inline constexpr int32_t kBufferTooSmall = -4301;
inline constexpr int32_t kMemoryFailure = -4302;
inline constexpr int32_t kAlignmentError = -4303;
inline constexpr int32_t kDecodeError = -4304;
inline constexpr int32_t kUnimplemented = -4305;

inline constexpr size_t kBlockSize = 16;

// Keys a fresh context for the operation (0 encrypt, 1 decrypt). Keys of any length are taken.
int32_t setUp(evp_cipher_ctx_st* context, const QVData& keyData, uint32_t operation);
// The output must have room for length + kBlockSize bytes; `produced` is how many were written.
int32_t update(evp_cipher_ctx_st* context, const uint8_t* bytes, size_t length, uint8_t* output,
               size_t capacity, size_t& produced);
// The output must have room for one block.
int32_t finish(evp_cipher_ctx_st* context, uint32_t operation, uint8_t* output, size_t capacity,
               size_t& produced);
// The whole input in one pass; `output` holds exactly the result on success.
int32_t crypt(const QVData& data, const QVData& keyData, uint32_t operation, QVData& output);

} // namespace QVHandoffAES256Cipher
