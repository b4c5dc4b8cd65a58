// SPDX-License-Identifier: MIT
#include "Network/HTTPClient/QVURLRequest.h"

void QVURLRequest::setValue(std::string value, std::string_view HTTPHeaderField) {
  // Erase first so that the name keeps the case of the latest setter.
  const auto found = headerFields_.find(HTTPHeaderField);
  if (found != headerFields_.end()) headerFields_.erase(found);
  headerFields_.emplace(std::string(HTTPHeaderField), std::move(value));
}

void QVURLRequest::setHTTPBody(QVData body) {
  HTTPBody_ = std::move(body);
  HTTPBodyStream_ = nullptr;
}

void QVURLRequest::setHTTPBodyStream(BodyStream stream) {
  HTTPBodyStream_ = std::move(stream);
  HTTPBody_.clear();
}
