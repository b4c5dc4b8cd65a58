// SPDX-License-Identifier: MIT
#pragma once
// A DNS-SD service: ours while it is published, a peer's once a browser found it. Hold it in a
// std::shared_ptr: events reach the delegate on the main queue only while someone holds the service.
// Safe to call from any thread; no Avahi type shows here.

#include "Foundation/QVTypes.h"
#include "QVHandoff/QVHandoffExport.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class QVDNSSDEngine;
class QVNetServiceDelegate;

/// Keys of the error dictionaries passed to delegates; the domain's value is QVNetServicesErrorDomain too.
inline constexpr const char* QVNetServicesErrorDomain = "QVNetServicesErrorDomain";
inline constexpr const char* QVNetServicesErrorCode = "QVNetServicesErrorCode";

using QVTXTRecordDictionary = std::map<std::string, QVData>;

class QVHANDOFF_EXPORT QVNetService : public std::enable_shared_from_this<QVNetService> {
public:
  /// To publish a local service on `port` through `engine`; an empty name publishes under the host's name,
  /// an empty domain in "local".
  QVNetService(std::shared_ptr<QVDNSSDEngine> engine, std::string domain, std::string type, std::string name,
               int port);
  /// To resolve a service that a browser of `engine` reported.
  QVNetService(std::shared_ptr<QVDNSSDEngine> engine, std::string domain, std::string type, std::string name);
  virtual ~QVNetService();
  QVNetService(const QVNetService&) = delete;
  QVNetService& operator=(const QVNetService&) = delete;

  /// The instance name: for a peer, the name under which it published itself; for ours, the published
  /// name once the publication is established.
  virtual std::string name() const;
  /// For logs: the object's address, domain, type and name.
  virtual std::string description() const;
  /// As given when made.
  std::string type() const;
  std::string domain() const;
  /// -1 until resolved, for a found service.
  virtual int64_t port() const;
  /// Known once resolved ("Host.local"), empty before.
  virtual std::string hostName() const;
  /// The resolved address, as text; empty before a resolve.
  std::vector<std::string> addresses() const;

  /// Held weakly: null once the delegate is gone.
  std::shared_ptr<QVNetServiceDelegate> delegate() const;
  void setDelegate(std::weak_ptr<QVNetServiceDelegate> delegate);

  /// The TXT record (wire format). Setting it replaces a published record at once and is kept for a
  /// publication to come; false when the engine refused the update.
  virtual QVData TXTRecordData() const;
  bool setTXTRecordData(const QVData& data);

  /// Publishes the service with the TXT record set; the outcome reaches the delegate on the main queue
  /// (netServiceDidPublish, after any rename on collision, or netServiceDidNotPublish).
  void publish();
  /// A resolve after an earlier one ends only with news: an answer that repeats the last resolution (the
  /// engine's cache may hold a dead peer's records for minutes) waits for the deadline instead.
  virtual void resolveWithTimeout(std::chrono::milliseconds timeout);
  /// Ends a publication or a resolve; TXT monitoring goes on.
  virtual void stop();
  /// Follows the TXT record: each new one reaches the delegate (netServiceDidUpdateTXTRecordData). A
  /// second call while monitoring does nothing; stopMonitoring() ends it.
  virtual void startMonitoring();
  virtual void stopMonitoring();

  /// RFC 6763 TXT record data <-> key -> value bytes. A key without "=" has an empty value; the first of
  /// several equal keys wins; empty strings are skipped.
  static QVTXTRecordDictionary dictionaryFromTXTRecordData(const QVData& data);
  /// None when an entry exceeds 255 bytes or a key is empty or holds "=".
  static std::optional<QVData> dataFromTXTRecordDictionary(const QVTXTRecordDictionary& dictionary);
  /// {QVNetServicesErrorDomain: QVNetServicesErrorDomain, QVNetServicesErrorCode: code}.
  static QVUserInfo errorDictionary(int64_t code);

protected:
  friend class QVNetServiceBrowser;
  /// The browser that found this service hears of a failed resolve on the main queue, after the delegate.
  void setResolveFailureHandler(std::function<void()> handler);

  /// For stand-ins: they answer name() and description(), and override whatever else of a peer's
  /// service they play (TXT record, resolve, monitoring) so that no DNS-SD engine starts.
  QVNetService();

private:
  struct State;
  std::unique_ptr<State> state_;
};
