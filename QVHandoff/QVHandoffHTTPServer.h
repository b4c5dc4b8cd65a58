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

class QVHandoffHTTPServer;

class QVHANDOFF_EXPORT QVHandoffHTTPServerDelegate {
public:
  virtual ~QVHandoffHTTPServerDelegate() = default;
  // DNS-SD established the publication (again after a rename); on the main queue.
  virtual void handoffHTTPServerDidPublish(QVHandoffHTTPServer& server) = 0;
};

class QVHANDOFF_EXPORT QVHandoffHTTPServer : public QVHTTPServer {
public:
  QVHandoffHTTPServer();
  ~QVHandoffHTTPServer() override;

  std::shared_ptr<QVHandoffHTTPServerDelegate> delegate() const;
  void setDelegate(const std::shared_ptr<QVHandoffHTTPServerDelegate>& delegate);

  // May be replaced at any time; connections read it afresh for every body they encrypt or decrypt.
  QVData AES256Key() const;
  void setAES256Key(QVData key);

  // The DNS-SD service type; empty: start() only listens.
  std::string type() const;
  void setType(std::string type);
  // Kept for the next publication and, while published, replaces the announced record at once.
  QVTXTRecordDictionary TXTRecordDictionary() const;
  void setTXTRecordDictionary(QVTXTRecordDictionary dictionary);
  // The name DNS-SD established (the machine's name, or its rename after a clash); empty until then.
  std::string publishedName() const;

  // Listens on a free port, then publishes when a type is set: under an empty name, in "local", on that
  // port. These hide the plain server's operations so that publication follows listening.
  bool start(QVError* error);
  // Withdraws the publication, closes the listener and cuts every open connection.
  void stop();

  void netServiceDidPublish(const std::shared_ptr<QVNetService>& sender);
  void netServiceDidNotPublish(const std::shared_ptr<QVNetService>& sender, const QVUserInfo& errorDict);

private:
  class PublicationDelegate;

  mutable std::mutex mutex_; // the key and the delegate are set on the main thread, read by connections
  QVData AES256Key_;
  std::weak_ptr<QVHandoffHTTPServerDelegate> delegate_;
  std::string type_;
  QVTXTRecordDictionary TXTRecordDictionary_;
  std::string publishedName_;
  std::shared_ptr<QVNetService> netService_;
  // Forwards the service's events here for as long as this server lives.
  std::shared_ptr<PublicationDelegate> publicationDelegate_;
};
