// SPDX-License-Identifier: MIT
#pragma once
// What a connection answers: a status, extra headers and a body pulled piece by piece on the
// connection's own thread, so that no body has to be whole in memory.

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

using QVHTTPHeaders = std::map<std::string, std::string>;

class QVHTTPResponse {
public:
  virtual ~QVHTTPResponse() = default;

  virtual int status() const { return 200; }
  // A chunked body has no length announced in advance; contentLength() is then not used.
  virtual bool isChunked() const { return false; }
  virtual uint64_t contentLength() const = 0;
  // Copies the next bytes of the body into `buffer` (at most `capacity`, which is never 0). 0 means the
  // body is complete; none means it failed and the connection is dropped.
  virtual std::optional<size_t> readData(uint8_t* buffer, size_t capacity) = 0;
  // Whether the body is worth producing on a thread of its own, a few pieces ahead of sending (a file read
  // and transformed piece by piece); small bodies are not.
  virtual bool producesAhead() const { return false; }

  // Headers of this response beside the ones the connection adds.
  const QVHTTPHeaders& httpHeaders() const { return httpHeaders_; }
  void setHttpHeaders(QVHTTPHeaders headers) { httpHeaders_ = std::move(headers); }

private:
  QVHTTPHeaders httpHeaders_;
};
