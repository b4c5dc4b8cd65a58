#pragma once
// A DNS-SD service: ours while it is published, a peer's once a browser found it.

#include <string>

class QVNetService {
public:
  virtual ~QVNetService() = default;
  // The instance name: for a peer, the name under which it published itself.
  virtual std::string name() const = 0;
  virtual std::string description() const = 0;
};
