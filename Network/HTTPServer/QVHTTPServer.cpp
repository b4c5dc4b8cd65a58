// SPDX-License-Identifier: MIT
#include "Network/HTTPServer/QVHTTPServer.h"

#include "Foundation/QVCFree.h"
#include "Foundation/QVLog.h"
#include "Foundation/QVReadAhead.h"
#include "Network/HTTPServer/QVHTTPConnection.h"
#include "Network/HTTPServer/QVHTTPErrorResponse.h"

#include <microhttpd.h>

#include <arpa/inet.h>
#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

QV_LOG_SOURCE("Network/QVHTTPServer")

namespace {

using QVMHDDaemon = std::unique_ptr<MHD_Daemon, QVCFree<&MHD_stop_daemon>>;
using QVMHDResponse = std::unique_ptr<MHD_Response, QVCFree<&MHD_destroy_response>>;

// The buffer of a response of known length; streamed (chunked) bodies use the connection's memory pool.
constexpr size_t kResponseBlockSize = 32 * 1024;
// A streamed body is produced in pieces of at most this size, whatever room the connection has, up to two
// ahead of the one being sent: the producer must not wait for each wakeup of the sender.
constexpr size_t kReadAheadChunkSize = 128 * 1024;
constexpr size_t kReadAheadChunks = 2;

} // namespace

struct QVHTTPServer::Daemon {
  QVMHDDaemon handle;
};

struct QVHTTPServer::Closing {
  std::mutex mutex;
  std::condition_variable done;
  size_t pending = 0;
};

// The glue between the library's C callbacks and the connection objects.
class QVHTTPConnectionDriver {
public:
  static void notifyConnection(void* cls, MHD_Connection* handle, void** socketContext,
                               MHD_ConnectionNotificationCode code) {
    auto* server = static_cast<QVHTTPServer*>(cls);
    if (code == MHD_CONNECTION_NOTIFY_STARTED) {
      auto connection = server->connectionDidStart(handle);
      if (connection) connection->handle_ = handle;
      *socketContext = connection.get();
      return;
    }
    // Destroyed here, after die(), unless a response still holds it.
    if (auto connection = server->connectionDidClose(handle)) connection->die();
    *socketContext = nullptr;
  }

  static void* uriLog(void*, const char* uri, MHD_Connection* handle) {
    auto* connection = connectionOf(handle);
    if (!connection) return nullptr;
    connection->stage_ = QVHTTPConnection::Stage::Headers;
    connection->requestURI_ = uri ? uri : "";
    connection->requestMethod_.clear();
    connection->expectsBody_ = false;
    return connection;
  }

  static MHD_Result access(void*, MHD_Connection* handle, const char*, const char* method, const char*,
                           const char* uploadData, size_t* uploadDataSize, void** requestContext) {
    auto* connection = static_cast<QVHTTPConnection*>(*requestContext);
    if (!connection || connection->disconnecting_) return MHD_NO;
    switch (connection->stage_) {
    case QVHTTPConnection::Stage::Headers: {
      connection->requestMethod_ = method;
      if (!connection->supportsMethod(connection->requestMethod_, connection->requestURI_)) {
        connection->stage_ = QVHTTPConnection::Stage::Responded;
        return queue(*connection, std::make_shared<QVHTTPErrorResponse>(MHD_HTTP_METHOD_NOT_ALLOWED), false);
      }
      connection->expectsBody_ =
          connection->expectsRequestBodyFromMethod(connection->requestMethod_, connection->requestURI_);
      if (connection->expectsBody_) connection->prepareForBodyWithSize(declaredBodySize(handle));
      connection->stage_ = QVHTTPConnection::Stage::Body;
      return connection->disconnecting_ ? MHD_NO : MHD_YES;
    }
    case QVHTTPConnection::Stage::Body:
      if (*uploadDataSize > 0) {
        // Nobody would read it, so nothing bounds it: drop the connection.
        if (!connection->expectsBody_) return MHD_NO;
        connection->processBodyData(reinterpret_cast<const uint8_t*>(uploadData), *uploadDataSize);
        *uploadDataSize = 0;
        return connection->disconnecting_ ? MHD_NO : MHD_YES;
      }
      if (connection->expectsBody_) connection->finishBody();
      if (connection->disconnecting_) return MHD_NO;
      connection->stage_ = QVHTTPConnection::Stage::Responded;
      if (auto response =
              connection->httpResponseForMethod(connection->requestMethod_, connection->requestURI_)) {
        return queue(*connection, std::move(response), true);
      }
      return queue(*connection, std::make_shared<QVHTTPErrorResponse>(MHD_HTTP_NOT_FOUND), false);
    case QVHTTPConnection::Stage::Idle:
    case QVHTTPConnection::Stage::Responded:
      break;
    }
    return MHD_NO;
  }

  static void completed(void*, MHD_Connection*, void** requestContext, MHD_RequestTerminationCode code) {
    auto* connection = static_cast<QVHTTPConnection*>(*requestContext);
    if (!connection) return;
    connection->stage_ = QVHTTPConnection::Stage::Idle;
    // Whatever ended a request early (peer gone, timeout, a dropped body or response) ends the connection.
    if (code != MHD_REQUEST_TERMINATED_COMPLETED_OK) {
      QV_LOG_DEBUG("Request {} ended early ({})", connection->requestURI_, static_cast<int>(code));
      connection->disconnect();
    }
  }

  static void log(void*, const char* format, va_list arguments) {
    char line[512];
    std::vsnprintf(line, sizeof line, format, arguments);
    QV_LOG_DEBUG("{}", line);
  }

private:
  static QVHTTPConnection* connectionOf(MHD_Connection* handle) {
    const MHD_ConnectionInfo* info = MHD_get_connection_info(handle, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return info ? static_cast<QVHTTPConnection*>(info->socket_context) : nullptr;
  }

  static uint64_t declaredBodySize(MHD_Connection* handle) {
    const char* length = MHD_lookup_connection_value(handle, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
    if (!length) {
      const char* coding =
          MHD_lookup_connection_value(handle, MHD_HEADER_KIND, MHD_HTTP_HEADER_TRANSFER_ENCODING);
      return coding ? QVHTTPConnection::kUnknownContentLength : 0;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long long size = std::strtoull(length, &end, 10);
    if (errno != 0 || end == length) return QVHTTPConnection::kUnknownContentLength;
    return size;
  }

  // What the library holds from queueing until it frees the body. The read-ahead thread holds the response
  // too, and goes first.
  struct Body {
    std::shared_ptr<QVHTTPResponse> response;
    std::unique_ptr<QVReadAhead> ahead;
  };

  static ssize_t readBody(void* cls, uint64_t, char* buffer, size_t capacity) {
    auto& body = *static_cast<Body*>(cls);
    if (!body.ahead && body.response->producesAhead()) {
      body.ahead = std::make_unique<QVReadAhead>(
          [response = body.response](uint8_t* chunk, size_t length) {
            return response->readData(chunk, length);
          },
          std::min(capacity, kReadAheadChunkSize), kReadAheadChunks);
    }
    auto* bytes = reinterpret_cast<uint8_t*>(buffer);
    const auto length =
        body.ahead ? body.ahead->read(bytes, capacity) : body.response->readData(bytes, capacity);
    if (!length) return MHD_CONTENT_READER_END_WITH_ERROR;
    if (*length == 0) return MHD_CONTENT_READER_END_OF_STREAM;
    return static_cast<ssize_t>(*length);
  }

  static void freeBody(void* cls) { std::unique_ptr<Body> owned(static_cast<Body*>(cls)); }

  // The library's own answers (405, 404) are not preprocessed: they are not the connection's.
  static MHD_Result queue(QVHTTPConnection& connection, std::shared_ptr<QVHTTPResponse> response,
                          bool preprocess) {
    QVHTTPHeaders headers = response->httpHeaders();
    if (preprocess) connection.preprocessResponse(headers);
    const uint64_t size = response->isChunked() ? MHD_SIZE_UNKNOWN : response->contentLength();
    const auto status = static_cast<unsigned>(response->status());
    auto owned = std::make_unique<Body>(Body{std::move(response), nullptr});
    QVMHDResponse handle(
        MHD_create_response_from_callback(size, kResponseBlockSize, &readBody, owned.get(), &freeBody));
    if (!handle) return MHD_NO;
    owned.release(); // freeBody takes it back
    for (const auto& [name, value] : headers) {
      if (MHD_add_response_header(handle.get(), name.c_str(), value.c_str()) != MHD_YES) {
        QV_LOG_DEBUG("Couldn't add header {}", name);
        return MHD_NO;
      }
    }
    return MHD_queue_response(connection.handle_, status, handle.get());
  }
};

QVHTTPServer::QVHTTPServer()
    : factory_([](QVHTTPServer& server) { return std::make_shared<QVHTTPConnection>(server); }),
      closing_(std::make_shared<Closing>()) {}

QVHTTPServer::~QVHTTPServer() {
  stop();
  waitUntilClosed();
}

void QVHTTPServer::waitUntilClosed() {
  std::unique_lock lock(closing_->mutex);
  closing_->done.wait(lock, [&] { return closing_->pending == 0; });
}

void QVHTTPServer::setConnectionFactory(ConnectionFactory factory) {
  std::lock_guard lock(mutex_);
  factory_ = std::move(factory);
}

std::shared_ptr<QVHTTPConnection> QVHTTPServer::connectionDidStart(const void* handle) {
  std::lock_guard lock(mutex_);
  auto connection = factory_(*this);
  if (!connection) return nullptr;
  connection->serverStopped_ = stopped_;
  connections_[handle] = connection;
  return connection;
}

std::shared_ptr<QVHTTPConnection> QVHTTPServer::connectionDidClose(const void* handle) {
  std::lock_guard lock(mutex_);
  auto found = connections_.find(handle);
  if (found == connections_.end()) return nullptr;
  auto connection = std::move(found->second);
  connections_.erase(found);
  return connection;
}

size_t QVHTTPServer::numberOfHTTPConnections() const {
  std::lock_guard lock(mutex_);
  return connections_.size();
}

bool QVHTTPServer::start(QVError* error) {
  if (daemon_) return true;
  sockaddr_in address{};
  std::vector<MHD_OptionItem> options = {
      {MHD_OPTION_CONNECTION_MEMORY_LIMIT, static_cast<intptr_t>(limits_.connectionMemoryLimit), nullptr},
      {MHD_OPTION_CONNECTION_LIMIT, static_cast<intptr_t>(limits_.connectionLimit), nullptr},
      {MHD_OPTION_PER_IP_CONNECTION_LIMIT, static_cast<intptr_t>(limits_.perIPConnectionLimit), nullptr},
      {MHD_OPTION_CONNECTION_TIMEOUT, static_cast<intptr_t>(limits_.connectionTimeoutSeconds), nullptr},
      {MHD_OPTION_NOTIFY_CONNECTION, reinterpret_cast<intptr_t>(&QVHTTPConnectionDriver::notifyConnection),
       this},
      {MHD_OPTION_URI_LOG_CALLBACK, reinterpret_cast<intptr_t>(&QVHTTPConnectionDriver::uriLog), this},
      {MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(&QVHTTPConnectionDriver::completed), this},
      {MHD_OPTION_EXTERNAL_LOGGER, reinterpret_cast<intptr_t>(&QVHTTPConnectionDriver::log), this},
  };
  unsigned flags = MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL |
                   MHD_USE_ERROR_LOG | MHD_USE_ITC; // stop() quiesces the listener from another thread
  if (!interface_.empty()) {
    address.sin_family = AF_INET;
    address.sin_port = htons(preferredPort_);
    if (inet_pton(AF_INET, interface_.c_str(), &address.sin_addr) != 1) {
      QV_LOG_ERROR("Invalid interface address {}", interface_);
      if (error) *error = QVError{QVHTTPServerErrorDomain, EINVAL, {}};
      return false;
    }
    options.push_back({MHD_OPTION_SOCK_ADDR, 0, &address});
  }
  options.push_back({MHD_OPTION_END, 0, nullptr});

  auto startWithFlags = [&](unsigned extraFlags) {
    return QVMHDDaemon(MHD_start_daemon(flags | extraFlags, preferredPort_, nullptr, nullptr,
                                        &QVHTTPConnectionDriver::access, this, MHD_OPTION_ARRAY,
                                        options.data(), MHD_OPTION_END));
  };
  QVMHDDaemon handle = interface_.empty() ? startWithFlags(MHD_USE_DUAL_STACK) : startWithFlags(0);
  // Hosts without IPv6 still serve over IPv4.
  if (!handle && interface_.empty()) handle = startWithFlags(0);
  if (!handle) {
    const int code = errno;
    if (error) *error = QVError{QVHTTPServerErrorDomain, code, {}};
    return false;
  }
  const MHD_DaemonInfo* info = MHD_get_daemon_info(handle.get(), MHD_DAEMON_INFO_BIND_PORT);
  if (!info || info->port == 0) {
    if (error) *error = QVError{QVHTTPServerErrorDomain, EADDRNOTAVAIL, {}};
    return false;
  }
  {
    std::lock_guard lock(mutex_);
    stopped_ = std::make_shared<std::atomic<bool>>(false);
  }
  daemon_ = std::make_unique<Daemon>(Daemon{std::move(handle)});
  port_ = info->port;
  return true;
}

void QVHTTPServer::stop() {
  std::unique_ptr<Daemon> daemon = std::move(daemon_);
  if (!daemon) return;
  port_ = 0;
  {
    std::lock_guard lock(mutex_);
    if (stopped_) stopped_->store(true);
  }
  {
    std::lock_guard lock(closing_->mutex);
    ++closing_->pending;
  }
  // New connections are refused from now on, not left waiting in the backlog of a closing daemon, and
  // a restart may bind the same port again at once. The library still uses the socket until it stops.
  const MHD_socket listener = MHD_quiesce_daemon(daemon->handle.get());
  if (listener != MHD_INVALID_SOCKET) shutdown(listener, SHUT_RDWR);
  // The library joins the connection threads, and those may be busy for a while (a copy, a move, a
  // main-thread wait being released): never on the caller's thread, which may be the main one.
  std::thread([closing = closing_, daemon = std::move(daemon), listener]() mutable {
    daemon.reset();
    if (listener != MHD_INVALID_SOCKET) close(listener);
    std::lock_guard lock(closing->mutex);
    --closing->pending;
    closing->done.notify_all();
  }).detach();
}
