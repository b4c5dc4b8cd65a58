// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffHTTPServer.h"

#include "Foundation/QVLog.h"
#include "Network/DNSSD/QVNetServiceDelegate.h"
#include "QVHandoff/QVHandoffHTTPConnection.h"

#include <fmt/format.h>

#include <utility>

QV_LOG_SOURCE("QVHandoff/QVHandoffHTTPServer")

namespace {

std::string describeValue(const QVValue& value) {
  if (const auto* text = std::get_if<std::string>(&value)) return *text;
  if (const auto* number = std::get_if<int64_t>(&value)) return std::to_string(*number);
  if (const auto* number = std::get_if<uint64_t>(&value)) return std::to_string(*number);
  return "?";
}

// "{key = value; ...}", the way the error dictionaries of DNS-SD are shown in log lines.
std::string describeErrorDictionary(const QVUserInfo& errorDict) {
  std::string text = "{";
  for (const auto& [key, value] : errorDict)
    text += fmt::format("{}{} = {};", text.size() > 1 ? " " : "", key, describeValue(value));
  return text + "}";
}

bool isLoopbackAddress(const std::string& address) {
  return address.starts_with("127.");
}

} // namespace

// The service holds its delegate weakly and the server is not always held by a shared pointer: this
// small object stands between them, and the server clears it before it goes.
class QVHandoffHTTPServer::PublicationDelegate : public QVNetServiceDelegate {
public:
  explicit PublicationDelegate(QVHandoffHTTPServer* server) : server_(server) {}
  void detach() {
    std::lock_guard lock(mutex_);
    server_ = nullptr;
  }
  void netServiceDidPublish(const std::shared_ptr<QVNetService>& sender) override {
    std::lock_guard lock(mutex_);
    if (server_) server_->netServiceDidPublish(sender);
  }
  void netServiceDidNotPublish(const std::shared_ptr<QVNetService>& sender,
                               const QVUserInfo& errorDict) override {
    std::lock_guard lock(mutex_);
    if (server_) server_->netServiceDidNotPublish(sender, errorDict);
  }

private:
  std::recursive_mutex mutex_; // the server's delegate may stop the server from within an event
  QVHandoffHTTPServer* server_;
};

QVHandoffHTTPServer::QVHandoffHTTPServer()
    : publicationDelegate_(std::make_shared<PublicationDelegate>(this)) {
  setConnectionFactory([this](QVHTTPServer&) { return std::make_shared<QVHandoffHTTPConnection>(*this); });
}

QVHandoffHTTPServer::~QVHandoffHTTPServer() {
  publicationDelegate_->detach();
  stop();
  waitUntilClosed(); // closing connections still use this server
}

std::shared_ptr<QVHandoffHTTPServerDelegate> QVHandoffHTTPServer::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void QVHandoffHTTPServer::setDelegate(const std::shared_ptr<QVHandoffHTTPServerDelegate>& delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = delegate;
}

void QVHandoffHTTPServer::setContext(const std::shared_ptr<QVHandoffServerContext>& context) {
  std::lock_guard lock(mutex_);
  context_ = context;
}

std::shared_ptr<QVHandoffServerContext> QVHandoffHTTPServer::context() const {
  std::lock_guard lock(mutex_);
  return context_.lock();
}

std::weak_ptr<QVHandoffServerContext> QVHandoffHTTPServer::weakContext() const {
  std::lock_guard lock(mutex_);
  return context_;
}

QVData QVHandoffHTTPServer::AES256Key() const {
  std::lock_guard lock(mutex_);
  return AES256Key_;
}

void QVHandoffHTTPServer::setAES256Key(QVData key) {
  std::lock_guard lock(mutex_);
  AES256Key_ = std::move(key);
}

std::string QVHandoffHTTPServer::type() const {
  std::lock_guard lock(mutex_);
  return type_;
}

void QVHandoffHTTPServer::setType(std::string type) {
  std::lock_guard lock(mutex_);
  type_ = std::move(type);
}

QVTXTRecordDictionary QVHandoffHTTPServer::TXTRecordDictionary() const {
  std::lock_guard lock(mutex_);
  return TXTRecordDictionary_;
}

void QVHandoffHTTPServer::setTXTRecordDictionary(QVTXTRecordDictionary dictionary) {
  const auto data = QVNetService::dataFromTXTRecordDictionary(dictionary);
  if (!data) QV_LOG_ERROR("Couldn't encode TXT record data");
  std::shared_ptr<QVNetService> service;
  {
    std::lock_guard lock(mutex_);
    TXTRecordDictionary_ = std::move(dictionary);
    service = netService_;
  }
  if (service && data && !service->setTXTRecordData(*data)) QV_LOG_ERROR("Couldn't update TXT record data");
}

void QVHandoffHTTPServer::setDNSSDEngine(std::shared_ptr<QVDNSSDEngine> engine) {
  std::lock_guard lock(mutex_);
  DNSSDEngine_ = std::move(engine);
}

std::string QVHandoffHTTPServer::publishedName() const {
  std::lock_guard lock(mutex_);
  return publishedName_;
}

bool QVHandoffHTTPServer::start(QVError* error) {
  if (!QVHTTPServer::start(error)) return false;
  std::shared_ptr<QVNetService> service;
  {
    std::lock_guard lock(mutex_);
    if (type_.empty() || isLoopbackAddress(interface())) return true;
    // An empty name publishes under the machine's name, and DNS-SD renames it on a clash.
    netService_ = std::make_shared<QVNetService>(DNSSDEngine_, "", type_, "", port());
    netService_->setDelegate(publicationDelegate_);
    if (const auto data = QVNetService::dataFromTXTRecordDictionary(TXTRecordDictionary_))
      netService_->setTXTRecordData(*data);
    service = netService_;
  }
  service->publish();
  return true;
}

void QVHandoffHTTPServer::stop() {
  std::shared_ptr<QVNetService> service;
  {
    std::lock_guard lock(mutex_);
    service = std::exchange(netService_, nullptr);
    publishedName_.clear();
  }
  if (service) {
    service->setDelegate({});
    service->stop();
  }
  QVHTTPServer::stop();
}

void QVHandoffHTTPServer::netServiceDidPublish(const std::shared_ptr<QVNetService>& sender) {
  // A withdrawn publication says nothing more: stop() silenced it.
  {
    std::lock_guard lock(mutex_);
    publishedName_ = sender->name();
  }
  if (auto delegate = this->delegate()) delegate->handoffHTTPServerDidPublish(*this);
}

void QVHandoffHTTPServer::netServiceDidNotPublish(const std::shared_ptr<QVNetService>&,
                                                  const QVUserInfo& errorDict) {
  QV_LOG_ERROR("Couldn't publish handoff server due {}", describeErrorDictionary(errorDict));
}
