#pragma once
// Hosts A, B, C... in network namespaces of their own (scripts/netns.sh), removed with the object together
// with whatever still runs in them, also when a test fails. Nothing here touches the machine's own
// interfaces.

#include <optional>
#include <string>
#include <vector>

class QVNetworkNamespaces {
public:
  struct Host {
    std::string letter;
    std::string netns;
    std::string interface;
    std::string address;
  };

  // Why namespaces cannot be made here (not root, no iproute2), or none.
  static std::optional<std::string> unavailableReason();

  QVNetworkNamespaces(std::string script, size_t count);
  ~QVNetworkNamespaces();
  QVNetworkNamespaces(const QVNetworkNamespaces&) = delete;
  QVNetworkNamespaces& operator=(const QVNetworkNamespaces&) = delete;

  // Empty when the hosts are up; else what went wrong.
  const std::string& failure() const { return failure_; }
  const std::string& run() const { return run_; }
  const Host& host(size_t index) const { return hosts_.at(index); }
  size_t count() const { return hosts_.size(); }

  // Joins two hosts by one more veth pair, so that each sees the other on two interfaces. Returns the new
  // interface names (first on `a`, then on `b`), or none.
  std::optional<std::pair<std::string, std::string>> addLink(size_t a, size_t b);

private:
  std::string script_;
  std::string run_;
  std::vector<Host> hosts_;
  std::string failure_;
};
