#pragma once
// A real libcurl client for the server tests: one request to 127.0.0.1, run on a thread of its own
// while the calling (main) thread keeps the main queue running for the server's notifications.

#include "Foundation/QVTypes.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

struct QVTestHTTPRequest {
  std::string method = "POST";
  std::string path;
  QVData body;
  std::vector<std::string> headers; // "Name: value"
  // Sends the body with Transfer-Encoding: chunked, in pieces of this size (0: one Content-Length body).
  size_t chunkSize = 0;
  // Stops sending after this many body bytes and aborts the transfer.
  size_t abortAfter = SIZE_MAX;

  static QVTestHTTPRequest post(std::string path, QVData body = {}) {
    QVTestHTTPRequest request;
    request.path = std::move(path);
    request.body = std::move(body);
    return request;
  }
  static QVTestHTTPRequest make(std::string method, std::string path) {
    QVTestHTTPRequest request = post(std::move(path));
    request.method = std::move(method);
    return request;
  }
  QVTestHTTPRequest& header(std::string line) {
    headers.push_back(std::move(line));
    return *this;
  }
  QVTestHTTPRequest& chunked(size_t size) {
    chunkSize = size;
    return *this;
  }
  QVTestHTTPRequest& abortingAfter(size_t length) {
    abortAfter = length;
    return *this;
  }
};

struct QVTestHTTPResponse {
  int curlCode = -1; // CURLcode; 0 when a whole response came back
  long status = 0;
  std::map<std::string, std::string> headers; // names in lower case
  QVData body;
  bool completed() const { return curlCode == 0; }
  std::string header(const std::string& lowerCaseName) const {
    auto found = headers.find(lowerCaseName);
    return found == headers.end() ? std::string() : found->second;
  }
};

// Performs the request on a separate thread and runs the main queue until it is done (bounded).
QVTestHTTPResponse QVTestHTTPPerform(uint16_t port, const QVTestHTTPRequest& request);
// Performs it on the calling thread (when nothing needs the main queue).
QVTestHTTPResponse QVTestHTTPPerformHere(uint16_t port, const QVTestHTTPRequest& request);
// Many requests at once, each on its own thread, while the main queue runs.
std::vector<QVTestHTTPResponse> QVTestHTTPPerformConcurrently(uint16_t port,
                                                              const std::vector<QVTestHTTPRequest>& requests);

// The AES-256-CBC (zero IV) of the command-line tool, as an independent reference for the wire bytes.
QVData QVOpenSSLCommand(const std::string& operation, const QVData& key, const QVData& input);
