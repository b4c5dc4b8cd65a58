// SPDX-License-Identifier: MIT
#pragma once
// One accepted TCP connection. The server makes one per connection through its factory and calls it on
// that connection's own thread, for each request in this order:
//   supportsMethod -> expectsRequestBodyFromMethod -> prepareForBodyWithSize -> processBodyData (0..n)
//   -> finishBody -> httpResponseForMethod -> preprocessResponse
// and die() once when the connection closes, on one of the server's own threads once this connection's
// thread is done with it. A method that is not supported is answered 405; a request without a response
// is answered 404; neither of those answers goes through preprocessResponse. A body sent with a request
// that expects none drops the connection.
// Paths and URIs are the request target as received: not percent-decoded, query string included.
// Range headers are ignored: every response is sent whole.

#include "Network/HTTPServer/QVHTTPResponse.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

class QVHTTPServer;
class QVHTTPConnectionDriver;
struct MHD_Connection;

class QVHTTPConnection : public std::enable_shared_from_this<QVHTTPConnection> {
public:
  // The size given to prepareForBodyWithSize when the body is sent chunked.
  static constexpr uint64_t kUnknownContentLength = UINT64_MAX;

  explicit QVHTTPConnection(QVHTTPServer& server) : server_(server) {}
  virtual ~QVHTTPConnection() = default;
  QVHTTPConnection(const QVHTTPConnection&) = delete;
  QVHTTPConnection& operator=(const QVHTTPConnection&) = delete;

  // Defaults: GET and HEAD are supported, POST and PUT carry a body, bodies are dropped, no response.
  virtual bool supportsMethod(const std::string& method, const std::string& path);
  virtual bool expectsRequestBodyFromMethod(const std::string& method, const std::string& path);
  // Called for every request whose body is expected, also when it turns out to be empty.
  virtual void prepareForBodyWithSize(uint64_t contentLength);
  // Pieces arrive in any size, not aligned to anything.
  virtual void processBodyData(const uint8_t* bytes, size_t length);
  virtual void finishBody();
  virtual std::shared_ptr<QVHTTPResponse> httpResponseForMethod(const std::string& method,
                                                                const std::string& uri);
  // The headers about to be sent: the response's own httpHeaders, which this may change.
  virtual void preprocessResponse(QVHTTPHeaders& headers);
  virtual void die();

  const std::string& requestURI() const { return requestURI_; }
  const std::string& requestMethod() const { return requestMethod_; }
  // The query string as a map, percent-decoded ('+' is kept as it is). A pair with an invalid escape,
  // or one that holds or decodes to a NUL byte, is left out; of repeated keys the first wins.
  std::map<std::string, std::string> parseGetParams() const;
  // The same for any request URI.
  static std::map<std::string, std::string> paramsFromRequestURI(const std::string& requestURI);
  // Drops the socket after the current callback: no response is sent.
  void disconnect() { disconnecting_ = true; }
  bool isDisconnecting() const { return disconnecting_; }
  QVHTTPServer& server() const { return server_; }
  // Holds once the server was stopped: whatever this connection waits for, it waits no longer.
  const std::atomic<bool>& serverStopped() const { return serverStopped_ ? *serverStopped_ : kNotStopped; }

private:
  friend class QVHTTPConnectionDriver;
  friend class QVHTTPServer;
  enum class Stage { Idle, Headers, Body, Responded };

  QVHTTPServer& server_;
  MHD_Connection* handle_ = nullptr; // not owned: the library's, valid while this object is registered
  Stage stage_ = Stage::Idle;
  bool expectsBody_ = false;
  std::string requestURI_;
  std::string requestMethod_;
  std::atomic<bool> disconnecting_ = false;
  std::shared_ptr<const std::atomic<bool>> serverStopped_; // set by the server before the first callback
  static inline const std::atomic<bool> kNotStopped = false;
};
