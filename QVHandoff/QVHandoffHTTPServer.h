#pragma once
// The local server that peers reach: it carries the shared AES-256 key and serves every connection
// through a QVHandoffHTTPConnection.

#include "Foundation/QVTypes.h"
#include "Network/HTTPServer/QVHTTPServer.h"

#include <memory>
#include <mutex>

class QVHandoffHTTPServer;

class QVHandoffHTTPServerDelegate {
public:
  virtual ~QVHandoffHTTPServerDelegate() = default;
  virtual void handoffHTTPServerDidPublish(QVHandoffHTTPServer& server) = 0;
};

class QVHandoffHTTPServer : public QVHTTPServer {
public:
  QVHandoffHTTPServer();

  std::shared_ptr<QVHandoffHTTPServerDelegate> delegate() const;
  void setDelegate(const std::shared_ptr<QVHandoffHTTPServerDelegate>& delegate);

  // May be replaced at any time; connections read it afresh for every body they encrypt or decrypt.
  QVData AES256Key() const;
  void setAES256Key(QVData key);

  // DNS-SD publication (type, TXT record, published name, and the publish callbacks that reach the
  // delegate) is added here with the publishing of the local server.

private:
  mutable std::mutex mutex_; // the key and the delegate are set on the main thread, read by connections
  QVData AES256Key_;
  std::weak_ptr<QVHandoffHTTPServerDelegate> delegate_;
};
