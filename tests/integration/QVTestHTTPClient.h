#pragma once
// A real libcurl client for the server tests: requests to 127.0.0.1, run on threads of their own while
// the calling (main) thread keeps the main queue running for the server's notifications.

#include "Foundation/QVTypes.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct QVTestHTTPRequest {
  std::string method = "POST";
  std::string path;
  QVData body;
  std::vector<std::string> headers; // "Name: value"
  size_t chunkSize = 0;             // > 0: sent chunked, in pieces of this size
  size_t abortAfter = SIZE_MAX;     // the transfer is aborted after this many body bytes

  static QVTestHTTPRequest post(std::string path, QVData body = {}) {
    QVTestHTTPRequest request;
    request.path = std::move(path);
    request.body = std::move(body);
    return request;
  }
  QVTestHTTPRequest& withMethod(std::string name) { return method = std::move(name), *this; }
  QVTestHTTPRequest& header(std::string line) { return headers.push_back(std::move(line)), *this; }
  QVTestHTTPRequest& chunked(size_t size) { return chunkSize = size, *this; }
  QVTestHTTPRequest& abortingAfter(size_t length) { return abortAfter = length, *this; }
};

struct QVTestHTTPResponse {
  int curlCode = -1;                          // 0 when a whole response came back
  long status = 0;                            // 0 when none came
  std::map<std::string, std::string> headers; // names in lower case
  QVData body;
  bool completed() const { return curlCode == 0; }
  std::string header(const std::string& name) const { return headers.contains(name) ? headers.at(name) : ""; }
};

// On the calling thread, which must not be needed by the server meanwhile.
QVTestHTTPResponse QVTestHTTPPerformHere(uint16_t port, const QVTestHTTPRequest& request);
// Concurrently, each on its own thread, while the calling thread runs the main queue (bounded).
std::vector<QVTestHTTPResponse> QVTestHTTPPerformConcurrently(uint16_t port,
                                                              const std::vector<QVTestHTTPRequest>& requests);
inline QVTestHTTPResponse QVTestHTTPPerform(uint16_t port, const QVTestHTTPRequest& request) {
  return QVTestHTTPPerformConcurrently(port, {request}).front();
}

// AES-256-CBC with a zero IV by the openssl command: an independent reference for the wire bytes.
QVData QVOpenSSLCommand(const std::string& operation, const QVData& key, const QVData& input);
