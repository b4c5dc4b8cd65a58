#pragma once
// The command line of `qvhandoff`: which form runs (serve or one of the one-shot commands) and the options
// shared by all of them.

#include "Network/DNSSD/QVDNSSDConfiguration.h"

#include <spdlog/common.h>

#include <chrono>
#include <optional>
#include <string>
#include <variant>
#include <vector>

struct QVHostOptions {
  enum class Command { Serve, Peers, Get, SaveBack, Info };

  Command command = Command::Serve;
  std::string container;
  std::string productName = "qvhandoff";
  QVDNSSDConfiguration dnssd;
  std::optional<spdlog::level::level_enum> logLevel;

  std::vector<std::string> files; // serve: the documents open at start, the first active
  std::string device;             // get
  std::string path;               // get: the document's path on the device; save-back, info: the copy
  std::chrono::milliseconds wait{0};

  // The options, or the exit status when parsing already ended the run (help printed, or one error line).
  static std::variant<QVHostOptions, int> parse(int argc, const char* const* argv);
};
