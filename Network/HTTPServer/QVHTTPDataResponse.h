// SPDX-License-Identifier: MIT
#pragma once
// A response whose body is a buffer held in memory (small bodies: JSON messages).

#include "Foundation/QVTypes.h"
#include "Network/HTTPServer/QVHTTPResponse.h"

class QVHTTPDataResponse : public QVHTTPResponse {
public:
  explicit QVHTTPDataResponse(QVData data) : data_(std::move(data)) {}

  uint64_t contentLength() const override { return data_.size(); }
  std::optional<size_t> readData(uint8_t* buffer, size_t capacity) override;
  const QVData& data() const { return data_; }

private:
  QVData data_;
  size_t offset_ = 0;
};
