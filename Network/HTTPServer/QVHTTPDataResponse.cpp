// SPDX-License-Identifier: MIT
#include "Network/HTTPServer/QVHTTPDataResponse.h"

#include <algorithm>
#include <cstring>

std::optional<size_t> QVHTTPDataResponse::readData(uint8_t* buffer, size_t capacity) {
  const size_t length = std::min(capacity, data_.size() - offset_);
  if (length > 0) std::memcpy(buffer, data_.data() + offset_, length);
  offset_ += length;
  return length;
}
