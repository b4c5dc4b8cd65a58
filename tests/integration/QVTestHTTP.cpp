// SPDX-License-Identifier: MIT
#include "QVTestHTTP.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fmt/format.h>

void QVHangUpMidUpload(uint16_t port, const std::string& path, const QVData& body, size_t length) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
    std::string request = fmt::format(
        "POST {} HTTP/1.1\r\nHost: 127.0.0.1\r\nTransfer-Encoding: chunked\r\n\r\n{:x}\r\n", path, length);
    request.append(body.begin(), body.begin() + static_cast<std::ptrdiff_t>(length));
    (void)!send(fd, request.data(), request.size(), MSG_NOSIGNAL);
  }
  close(fd);
}

QVRawHTTPServer::QVRawHTTPServer(std::string reply, bool hold, size_t piece) {
  start(std::move(reply), hold, piece);
}

QVRawHTTPServer::QVRawHTTPServer(std::string head, uint64_t bodyLength, QVData pattern)
    : bodyLength_(bodyLength), pattern_(std::move(pattern)) {
  start(std::move(head), false, 0);
}

void QVRawHTTPServer::start(std::string reply, bool hold, size_t piece) {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t length = sizeof address;
  bind(listener_, reinterpret_cast<sockaddr*>(&address), length);
  listen(listener_, 4);
  getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this, reply = std::move(reply), hold, piece] { serve(reply, hold, piece); });
}

QVRawHTTPServer::~QVRawHTTPServer() {
  stop_ = true;
  thread_.join();
  close(listener_);
}

std::string QVRawHTTPServer::URL(const std::string& path) const {
  return fmt::format("http://127.0.0.1:{}{}", port_, path);
}

std::string QVRawHTTPServer::request() const {
  std::lock_guard lock(mutex_);
  return request_;
}

bool QVRawHTTPServer::ready(int fd, short events) const {
  pollfd entry{fd, events, 0};
  for (int i = 0; i < 300 && !stop_; ++i) {
    if (poll(&entry, 1, 100) > 0) return (entry.revents & events) != 0;
  }
  return false;
}

bool QVRawHTTPServer::send(int connection, const std::string& reply, size_t piece) {
  if (piece == 0 && ::send(connection, reply.data(), reply.size(), MSG_NOSIGNAL) < 0) return false;
  // The repeated body, as far as the client reads it.
  for (uint64_t sent = 0; piece == 0 && sent < bodyLength_ && ready(connection, POLLOUT);) {
    const size_t offset = static_cast<size_t>(sent % pattern_.size());
    const size_t length =
        static_cast<size_t>(std::min<uint64_t>(pattern_.size() - offset, bodyLength_ - sent));
    const ssize_t written = ::send(connection, pattern_.data() + offset, length, MSG_NOSIGNAL);
    if (written <= 0) return false;
    sent += static_cast<uint64_t>(written);
    bodySent += static_cast<uint64_t>(written);
  }
  if (piece == 0) return true;
  for (size_t offset = 0; offset < reply.size() && !stop_; offset += piece) {
    const size_t length = std::min(piece, reply.size() - offset);
    if (::send(connection, reply.data() + offset, length, MSG_NOSIGNAL) != static_cast<ssize_t>(length))
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

void QVRawHTTPServer::serve(const std::string& reply, bool hold, size_t piece) {
  while (ready(listener_)) {
    const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) continue;
    // The whole request first, so that hanging up never resets the connection under the answer.
    std::string request;
    char buffer[4096];
    for (ssize_t n; ready(connection) && (n = recv(connection, buffer, sizeof buffer, 0)) > 0;) {
      request.append(buffer, static_cast<size_t>(n));
      const size_t end = request.find("\r\n\r\n");
      const size_t field = request.find("Content-Length: ");
      if (end != std::string::npos &&
          request.size() >= end + 4 + (field < end ? std::stoul(request.substr(field + 16)) : 0))
        break;
    }
    {
      std::lock_guard lock(mutex_);
      request_ = request;
    }
    ++requests;
    if (send(connection, reply, piece) && hold) {
      while (ready(connection) && recv(connection, buffer, sizeof buffer, 0) > 0) {
      }
    }
    close(connection);
  }
}
