// SPDX-License-Identifier: MIT
#pragma once
// What reaches the host from outside its main queue: lines on stdin and the interrupting signals. Each is
// read on a thread of its own and handed to the main queue.

#include <functional>
#include <string>

class QVHostInput {
public:
  // Blocks SIGINT, SIGTERM and SIGHUP for the calling thread and every thread it starts later, so that only
  // the watcher takes them; ignores SIGPIPE. Call first in main.
  static void blockSignals();
  // Each line of stdin, then `end` once at its end, on the main queue.
  static void readLines(std::function<void(std::string)> line, std::function<void()> end);
  // `interrupted` on the main queue at the first SIGINT, SIGTERM or SIGHUP (a closed terminal, or a service
  // manager's stop); a second one ends the process at once.
  static void watchSignals(std::function<void()> interrupted);
};
