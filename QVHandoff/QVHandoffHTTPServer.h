// SPDX-License-Identifier: MIT
#pragma once
// The local server that peers reach: it carries the shared AES-256 key, serves every connection through a
// QVHandoffHTTPConnection, and announces itself by DNS-SD under the type and TXT record the manager gives.

#include "Foundation/QVTypes.h"
#include "Network/DNSSD/QVNetService.h"
#include "Network/HTTPServer/QVHTTPServer.h"
#include "QVHandoff/QVHandoffExport.h"

#include <memory>
#include <mutex>
#include <string>

class QVDNSSDEngine;
class QVHandoffHTTPServer;
class QVHandoffServerContext;

class QVHANDOFF_EXPORT QVHandoffHTTPServerDelegate {
public:
  virtual ~QVHandoffHTTPServerDelegate() = default;
  /// DNS-SD established the publication (again after a rename); on the main queue.
  virtual void handoffHTTPServerDidPublish(QVHandoffHTTPServer& server) = 0;
};

class QVHANDOFF_EXPORT QVHandoffHTTPServer : public QVHTTPServer {
public:
  QVHandoffHTTPServer();
  ~QVHandoffHTTPServer() override;

  /// Held weakly: null once the delegate is gone. Any thread.
  std::shared_ptr<QVHandoffHTTPServerDelegate> delegate() const;
  void setDelegate(const std::shared_ptr<QVHandoffHTTPServerDelegate>& delegate);

  /// What connections serve: the owning manager's documents, blocks and notifications. Held weakly.
  void setContext(const std::shared_ptr<QVHandoffServerContext>& context);
  /// The context while its manager lives, else null; the weak form is for work that runs later.
  std::shared_ptr<QVHandoffServerContext> context() const;
  std::weak_ptr<QVHandoffServerContext> weakContext() const;

  /// May be replaced at any time; connections read it afresh for every body they encrypt or decrypt.
  QVData AES256Key() const;
  void setAES256Key(QVData key);

  /// What the server publishes through; without one a publication fails.
  void setDNSSDEngine(std::shared_ptr<QVDNSSDEngine> engine);

  /// The DNS-SD service type; empty: start() only listens.
  std::string type() const;
  void setType(std::string type);
  /// Kept for the next publication and, while published, replaces the announced record at once.
  QVTXTRecordDictionary TXTRecordDictionary() const;
  void setTXTRecordDictionary(QVTXTRecordDictionary dictionary);
  /// The name DNS-SD established (the machine's name, or its rename after a clash); empty until then.
  std::string publishedName() const;

  /// Listens on a free port, then publishes when a type is set: under an empty name, in "local", on that
  /// port. A server bound to the loopback is not announced: no peer could reach it. These hide the plain
  /// server's operations so that publication follows listening.
  bool start(QVError* error);
  /// Withdraws the publication and returns at once; the listener and every open connection close in the
  /// background.
  void stop();

  /// The publication's outcome, on the main queue: success records the established name and tells the
  /// delegate; a failure is only logged.
  void netServiceDidPublish(const std::shared_ptr<QVNetService>& sender);
  void netServiceDidNotPublish(const std::shared_ptr<QVNetService>& sender, const QVUserInfo& errorDict);

private:
  class PublicationDelegate;

  /// The key, the delegate and the context are set on the main thread, read by connections.
  mutable std::mutex mutex_;
  QVData AES256Key_;
  std::weak_ptr<QVHandoffHTTPServerDelegate> delegate_;
  std::weak_ptr<QVHandoffServerContext> context_;
  std::shared_ptr<QVDNSSDEngine> DNSSDEngine_;
  std::string type_;
  QVTXTRecordDictionary TXTRecordDictionary_;
  std::string publishedName_;
  std::shared_ptr<QVNetService> netService_;
  /// Forwards the service's events here for as long as this server lives.
  std::shared_ptr<PublicationDelegate> publicationDelegate_;
};
