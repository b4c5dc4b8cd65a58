// SPDX-License-Identifier: MIT
#pragma once
// The embedded HTTP server: listens on a port the system chooses, serves every accepted connection on a
// thread of its own through a QVHTTPConnection made by the factory, and bounds what a peer may take.

#include "Foundation/QVTypes.h"
#include "QVHandoff/QVHandoffExport.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

class QVHTTPConnection;
class QVHTTPConnectionDriver;

/// The domain of start()'s errors; the code is an errno value.
inline constexpr const char* QVHTTPServerErrorDomain = "QVHTTPServerErrorDomain";

struct QVHANDOFF_EXPORT QVHTTPServerLimits {
  /// Each connection holds a thread; peers are the user's own few devices.
  unsigned connectionLimit = 64;
  unsigned perIPConnectionLimit = 32;
  /// Seconds without traffic before a connection is closed; the client gives up after 60 s as well.
  unsigned connectionTimeoutSeconds = 60;
  /// Per connection: request headers, upload pieces and the chunks of streamed responses come from it. An
  /// upload arrives in pieces of half of it, and each piece of a save back waits for the main thread to
  /// take its progress notice, so 256 KiB pieces rather than 128 KiB ones.
  size_t connectionMemoryLimit = 512 * 1024;
};

class QVHANDOFF_EXPORT QVHTTPServer {
public:
  using ConnectionFactory = std::function<std::shared_ptr<QVHTTPConnection>(QVHTTPServer& server)>;

  QVHTTPServer();
  virtual ~QVHTTPServer();
  QVHTTPServer(const QVHTTPServer&) = delete;
  QVHTTPServer& operator=(const QVHTTPServer&) = delete;

  /// How connections are made; the default serves nothing. Set before start().
  void setConnectionFactory(ConnectionFactory factory);
  /// What a peer may take; applied at start().
  const QVHTTPServerLimits& limits() const { return limits_; }
  void setLimits(const QVHTTPServerLimits& limits) { limits_ = limits; }
  /// The IPv4 address to listen on ("127.0.0.1"); empty, the default, listens on every interface,
  /// IPv6 and IPv4.
  void setInterface(std::string address) { interface_ = std::move(address); }
  const std::string& interface() const { return interface_; }
  /// The port to listen on at every start, so that a firewall rule can name it; 0, the default, lets the
  /// system choose. A port that is taken fails the start rather than move elsewhere.
  void setPreferredPort(uint16_t port) { preferredPort_ = port; }
  uint16_t preferredPort() const { return preferredPort_; }

  /// Starts listening on the preferred port, or else on a free one. False, with the error when there is one,
  /// if that fails.
  bool start(QVError* error);
  /// Returns at once. The listener and every open connection, transfers in progress included, close in
  /// the background; connections waiting for the main thread are released (QVHTTPConnection::serverStopped).
  /// start() may follow at once, on a new port. The destructor waits until every closing is done.
  void stop();
  /// Listening: between a successful start() and stop().
  bool isRunning() const { return port_ != 0; }
  /// The port chosen at start; 0 while stopped.
  uint16_t port() const { return port_; }
  /// The connections open now.
  size_t numberOfHTTPConnections() const;

protected:
  /// Waits until every stopped daemon has closed. A subclass whose connections use it calls this in its
  /// destructor, while it is still whole.
  void waitUntilClosed();

private:
  friend class QVHTTPConnectionDriver;
  struct Daemon;

  std::shared_ptr<QVHTTPConnection> connectionDidStart(const void* handle);
  std::shared_ptr<QVHTTPConnection> connectionDidClose(const void* handle);

  QVHTTPServerLimits limits_;
  std::string interface_;
  uint16_t preferredPort_ = 0;
  std::unique_ptr<Daemon> daemon_;
  std::atomic<uint16_t> port_ = 0;
  mutable std::mutex mutex_; // guards the factory, the open connections and the running daemon's flag
  ConnectionFactory factory_;
  std::map<const void*, std::shared_ptr<QVHTTPConnection>> connections_;
  /// Set by stop() for the connections of the daemon that was running; a new one for every start.
  std::shared_ptr<std::atomic<bool>> stopped_;
  /// Daemons closing in the background. The library calls back into this server until each is done.
  struct Closing;
  std::shared_ptr<Closing> closing_;
};
