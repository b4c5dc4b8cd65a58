// SPDX-License-Identifier: MIT
#include "Network/HTTPServer/QVHTTPConnection.h"

#include <optional>
#include <string_view>

namespace {

std::optional<int> hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return std::nullopt;
}

std::optional<std::string> percentDecoded(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      // A raw NUL would cut a path short as surely as an encoded one.
      if (text[i] == '\0') return std::nullopt;
      result += text[i];
      continue;
    }
    if (i + 2 >= text.size()) return std::nullopt;
    const auto high = hexValue(text[i + 1]);
    const auto low = hexValue(text[i + 2]);
    if (!high || !low) return std::nullopt;
    const char decoded = static_cast<char>(*high * 16 + *low);
    if (decoded == '\0') return std::nullopt;
    result += decoded;
    i += 2;
  }
  return result;
}

} // namespace

bool QVHTTPConnection::supportsMethod(const std::string& method, const std::string&) {
  return method == "GET" || method == "HEAD";
}

bool QVHTTPConnection::expectsRequestBodyFromMethod(const std::string& method, const std::string&) {
  return method == "POST" || method == "PUT";
}

void QVHTTPConnection::prepareForBodyWithSize(uint64_t) {}
void QVHTTPConnection::processBodyData(const uint8_t*, size_t) {}
void QVHTTPConnection::finishBody() {}

std::shared_ptr<QVHTTPResponse> QVHTTPConnection::httpResponseForMethod(const std::string&,
                                                                        const std::string&) {
  return nullptr;
}

void QVHTTPConnection::preprocessResponse(QVHTTPHeaders&) {}
void QVHTTPConnection::die() {}

std::map<std::string, std::string> QVHTTPConnection::parseGetParams() const {
  return paramsFromRequestURI(requestURI_);
}

std::map<std::string, std::string> QVHTTPConnection::paramsFromRequestURI(const std::string& requestURI) {
  std::map<std::string, std::string> params;
  const size_t question = requestURI.find('?');
  if (question == std::string::npos) return params;
  std::string_view query(requestURI);
  query.remove_prefix(question + 1);
  while (!query.empty()) {
    const size_t ampersand = query.find('&');
    const std::string_view pair = query.substr(0, ampersand);
    query.remove_prefix(ampersand == std::string_view::npos ? query.size() : ampersand + 1);
    if (pair.empty()) continue;
    const size_t equals = pair.find('=');
    auto key = percentDecoded(pair.substr(0, equals));
    auto value =
        percentDecoded(equals == std::string_view::npos ? std::string_view() : pair.substr(equals + 1));
    if (key && value) params.emplace(std::move(*key), std::move(*value));
  }
  return params;
}
