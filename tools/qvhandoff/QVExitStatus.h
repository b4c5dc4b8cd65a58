// SPDX-License-Identifier: MIT
#pragma once
// The exit statuses of `qvhandoff`, one per kind of failure a script may want to tell apart; docs/cli.md
// lists them.

enum class QVExitStatus : int {
  Success = 0,
  Failure = 1,        // anything not named below
  Usage = 2,          // the command line is wrong
  NoSuchPeer = 3,     // the peer (or its document) did not show up in time
  NotACopy = 4,       // the file is not a handed-off copy
  TransferFailed = 5, // a handoff, save back or mark reached the peer and failed
  NotSetUp = 6,       // no container folder, or no shared key in it
  Interrupted = 130,  // SIGINT, SIGTERM or SIGHUP ended a one-shot command
};

constexpr int QVExitCode(QVExitStatus status) {
  return static_cast<int>(status);
}
