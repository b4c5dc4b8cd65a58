// SPDX-License-Identifier: MIT
#pragma once
// Raw HTTP on 127.0.0.1 for the integration tests: what the library's own client and server never do.

#include "Foundation/QVTypes.h"

#include <poll.h>

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
// Made with a body length, the reply is followed by that many bytes of `pattern`, repeated, for as long as
// the client reads them; `bodySent` counts them.
class QVRawHTTPServer {
public:
  explicit QVRawHTTPServer(std::string reply, bool hold = false, size_t piece = 0);
  QVRawHTTPServer(std::string head, uint64_t bodyLength, QVData pattern);
  ~QVRawHTTPServer();
  uint16_t port() const { return port_; }
  std::string URL(const std::string& path = "/") const;
  // The last request read, head and body.
  std::string request() const;
  std::atomic<int> requests = 0;
  std::atomic<uint64_t> bodySent = 0;

private:
  bool ready(int fd, short events = POLLIN) const;
  void start(std::string reply, bool hold, size_t piece);
  void serve(const std::string& reply, bool hold, size_t piece);
  bool send(int connection, const std::string& reply, size_t piece);

  uint64_t bodyLength_ = 0;
  QVData pattern_;
  int listener_ = -1;
  uint16_t port_ = 0;
  std::atomic<bool> stop_ = false;
  mutable std::mutex mutex_;
  std::string request_;
  std::thread thread_;
};
