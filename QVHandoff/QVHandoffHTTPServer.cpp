#include "QVHandoff/QVHandoffHTTPServer.h"

#include "QVHandoff/QVHandoffHTTPConnection.h"

QVHandoffHTTPServer::QVHandoffHTTPServer() {
  setConnectionFactory([this](QVHTTPServer&) { return std::make_shared<QVHandoffHTTPConnection>(*this); });
}

std::shared_ptr<QVHandoffHTTPServerDelegate> QVHandoffHTTPServer::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void QVHandoffHTTPServer::setDelegate(const std::shared_ptr<QVHandoffHTTPServerDelegate>& delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = delegate;
}

QVData QVHandoffHTTPServer::AES256Key() const {
  std::lock_guard lock(mutex_);
  return AES256Key_;
}

void QVHandoffHTTPServer::setAES256Key(QVData key) {
  std::lock_guard lock(mutex_);
  AES256Key_ = std::move(key);
}
