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
  listener_ = socket(AF_INET, SOCK_STREAM, 0);
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

bool QVRawHTTPServer::readable(int fd) const {
  pollfd entry{fd, POLLIN, 0};
  for (int i = 0; i < 300 && !stop_; ++i) {
    if (poll(&entry, 1, 100) > 0) return true;
  }
  return false;
}

bool QVRawHTTPServer::send(int connection, const std::string& reply, size_t piece) const {
  if (piece == 0) return ::send(connection, reply.data(), reply.size(), MSG_NOSIGNAL) >= 0;
  for (size_t offset = 0; offset < reply.size() && !stop_; offset += piece) {
    const size_t length = std::min(piece, reply.size() - offset);
    if (::send(connection, reply.data() + offset, length, MSG_NOSIGNAL) != static_cast<ssize_t>(length))
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

void QVRawHTTPServer::serve(const std::string& reply, bool hold, size_t piece) {
  while (readable(listener_)) {
    const int connection = accept(listener_, nullptr, nullptr);
    // The whole request first, so that hanging up never resets the connection under the answer.
    std::string request;
    char buffer[4096];
    for (ssize_t n; readable(connection) && (n = recv(connection, buffer, sizeof buffer, 0)) > 0;) {
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
      while (readable(connection) && recv(connection, buffer, sizeof buffer, 0) > 0) {
      }
    }
    close(connection);
  }
}
