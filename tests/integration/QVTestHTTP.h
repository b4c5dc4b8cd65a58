// SPDX-License-Identifier: MIT
#pragma once
// Raw HTTP on 127.0.0.1 for the integration tests: what the library's own client and server never do.

#include "Foundation/QVTypes.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

// Starts a chunked upload of `body` to `path` and hangs up after `length` bytes of it: a peer that goes away
// halfway, which the library's own client never does.
void QVHangUpMidUpload(uint16_t port, const std::string& path, const QVData& body, size_t length);

// Answers every connection with the same bytes: reads the request (its body by "Content-Length"), writes
// `reply`, then hangs up or, with `hold`, waits until the client leaves. Every wait ends after 30 s. With a
// `piece` size the reply goes out that many bytes at a time with a pause between, until the client leaves.
class QVRawHTTPServer {
public:
  explicit QVRawHTTPServer(std::string reply, bool hold = false, size_t piece = 0);
  ~QVRawHTTPServer();
  uint16_t port() const { return port_; }
  std::string URL(const std::string& path = "/") const;
  // The last request read, head and body.
  std::string request() const;
  std::atomic<int> requests = 0;

private:
  bool readable(int fd) const;
  void serve(const std::string& reply, bool hold, size_t piece);
  bool send(int connection, const std::string& reply, size_t piece) const;

  int listener_ = -1;
  uint16_t port_ = 0;
  std::atomic<bool> stop_ = false;
  mutable std::mutex mutex_;
  std::string request_;
  std::thread thread_;
};
