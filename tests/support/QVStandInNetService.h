// SPDX-License-Identifier: MIT
#pragma once
// A peer's service played without DNS-SD: it answers what a resolve and the TXT monitor would have
// told, and counts the resolves, stops and monitoring it is asked for. Nothing here starts an engine.

#include "Network/DNSSD/QVDNSSDEngine.h"
#include "Network/DNSSD/QVNetService.h"
#include "QVHandoff/QVHandoffMetaStorage.h"

#include <atomic>
#include <chrono>
#include <string>

class QVStandInNetService : public QVNetService {
public:
  explicit QVStandInNetService(std::string name) : name_(std::move(name)) {}

  std::string name() const override { return name_; }
  std::string description() const override { return "<QVStandInNetService " + name_ + ">"; }
  std::string hostName() const override { return hostName_; }
  int64_t port() const override { return port_; }
  QVData TXTRecordData() const override { return TXT_; }
  void resolveWithTimeout(std::chrono::milliseconds timeout) override {
    ++resolves;
    resolveTimeout = timeout;
  }
  void stop() override { ++stops; }
  void startMonitoring() override { monitoring = true; }
  void stopMonitoring() override { monitoring = false; }

  void setTXTRecord(const QVTXTRecordDictionary& dictionary) {
    TXT_ = QVNetService::dataFromTXTRecordDictionary(dictionary).value_or(QVData());
  }
  void setResolvedAddress(std::string hostName, int64_t port) {
    hostName_ = std::move(hostName);
    port_ = port;
  }

  int resolves = 0;
  int stops = 0;
  bool monitoring = false;
  std::chrono::milliseconds resolveTimeout{0};

private:
  std::string name_;
  std::string hostName_;
  int64_t port_ = -1;
  QVData TXT_;
};

inline QVData QVTXTValue(const std::string& text) {
  return QVData(text.begin(), text.end());
}

// An engine that never starts one: it counts who asks for it, and every browse, resolve or publication
// through it fails as if no DNS-SD could run here.
class QVStandInDNSSDEngine : public QVDNSSDEngine {
public:
  QVStandInDNSSDEngine() : QVDNSSDEngine({}) {}
  std::shared_ptr<QVDNSSDBackend> backend(int& error) override {
    ++requests;
    error = kError;
    return nullptr;
  }

  static constexpr int kError = -26; // Avahi's "not supported"
  std::atomic<int> requests = 0;
};

// A storage as a sync folder's meta file would give it; an empty type means nothing is published or browsed.
inline std::shared_ptr<QVHandoffMetaStorage> QVTestMetaStorage(QVData key,
                                                               const std::string& serviceType = "") {
  auto storage = std::make_shared<QVHandoffMetaStorage>();
  storage->setServiceType(serviceType);
  storage->setAES256Key(std::move(key));
  return storage;
}
