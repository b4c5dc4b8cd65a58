// SPDX-License-Identifier: MIT
#pragma once
// The one-shot form of the cipher for small bodies (JSON messages). Same settings as the cryptor.

#include "Foundation/QVTypes.h"

#include <cstdint>
#include <optional>

struct QVHandoffAES256Data {
  static std::optional<QVData> encryptWithKeyData(const QVData& data, const QVData& keyData);
  static std::optional<QVData> decryptWithKeyData(const QVData& data, const QVData& keyData);
  static std::optional<QVData> cryptWithKeyData(const QVData& data, const QVData& keyData,
                                                uint32_t usingOperation);
};
