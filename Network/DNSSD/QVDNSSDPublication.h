// SPDX-License-Identifier: MIT
#pragma once
// One published service of either engine: its entry group, the renaming on a name collision, the TXT
// record that replaces the published one, and the re-adding after the host name was claimed anew.
// Lives and dies with the poll lock held (see QVDNSSDBackend). Private to Network/DNSSD.

#include "Network/DNSSD/QVDNSSDBackend.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

class QVDNSSDPublication {
public:
  struct Callbacks {
    // The group is established under `name`: the last name added.
    std::function<void(const std::string& name)> established;
    std::function<void(int error)> failed;
  };

  // An empty name publishes under the engine's host name. Adds at once when the engine runs.
  QVDNSSDPublication(QVDNSSDBackend& backend, std::string name, std::string type, std::string domain,
                     uint16_t port, QVData txt, Callbacks callbacks);
  ~QVDNSSDPublication();
  QVDNSSDPublication(const QVDNSSDPublication&) = delete;
  QVDNSSDPublication& operator=(const QVDNSSDPublication&) = delete;

  // Replaces the published TXT record, or the one to publish when the group is not added yet.
  int updateTXT(const QVData& txt);

  void engineStateChanged(bool running);
  void engineFailed(int error);

private:
  void add();
  void groupStateChanged(AvahiEntryGroupState state);
  void fail(int error);

  QVDNSSDBackend& backend_;
  std::string name_;
  const std::string type_;
  const std::string domain_;
  const uint16_t port_;
  QVData txt_;
  Callbacks callbacks_;
  std::unique_ptr<QVDNSSDBackend::EntryGroup> group_;
  bool added_ = false;
  bool failed_ = false;
};
