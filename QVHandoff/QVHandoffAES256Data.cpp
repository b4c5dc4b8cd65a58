// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffAES256Data.h"

#include "Foundation/QVLog.h"
#include "QVHandoff/QVHandoffAES256Cipher.h"
#include "QVHandoff/QVHandoffAES256Cryptor.h"

QV_LOG_SOURCE("QVHandoff/QVHandoffAES256Data")

std::optional<QVData> QVHandoffAES256Data::encryptWithKeyData(const QVData& data, const QVData& keyData) {
  return cryptWithKeyData(data, keyData, QVHandoffAES256OperationEncrypt);
}

std::optional<QVData> QVHandoffAES256Data::decryptWithKeyData(const QVData& data, const QVData& keyData) {
  return cryptWithKeyData(data, keyData, QVHandoffAES256OperationDecrypt);
}

std::optional<QVData> QVHandoffAES256Data::cryptWithKeyData(const QVData& data, const QVData& keyData,
                                                            uint32_t usingOperation) {
  QVData output;
  const int32_t status = QVHandoffAES256Cipher::crypt(data, keyData, usingOperation, output);
  if (status != QVHandoffAES256Cipher::kSuccess) {
    QV_LOG_ERROR("Couldnt't crypt using operation({}) with result({})", static_cast<int32_t>(usingOperation),
                 status);
    return std::nullopt;
  }
  return output;
}
