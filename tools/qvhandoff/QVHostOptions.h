// SPDX-License-Identifier: MIT
#pragma once
// The command line of `qvhandoff`: which form runs (serve or one of the one-shot commands) and the options
// shared by all of them.

#include "Network/DNSSD/QVDNSSDConfiguration.h"

#include <spdlog/common.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

struct QVHostOptions {
  enum class Command { Serve, Init, Peers, Get, SaveBack, MarkModified, Info };

  Command command = Command::Serve;
  std::string container;
  std::string productName = "qvhandoff";
  QVDNSSDConfiguration dnssd;
  // The level from --log-level, -v and -q, or none to keep $QVHANDOFF_LOG_LEVEL's.
  std::optional<spdlog::level::level_enum> logLevel;
  uint16_t port = 0;

  std::vector<std::string> files; // serve: the documents open at start, the first active
  bool readInput = true;          // serve: commands on stdin, its end quits
  std::string device;             // get
  std::string path;               // get: the document's path on the device; save-back, info: the copy
  std::chrono::milliseconds wait{0};
  std::optional<bool> json; // peers: JSON, or a table; none: a table on a terminal only

  // The options, or the exit status when parsing already ended the run (help printed, or one error line).
  static std::variant<QVHostOptions, int> parse(int argc, const char* const* argv);
};
