// SPDX-License-Identifier: MIT
#pragma once
// `qvhandoff serve`: one installation with documents open, driven by commands on stdin, reporting every
// notification and transfer event on stdout. A peer's request to push a copy back starts that save back.

#include "QVHostCommand.h"

#include <string>

class QVEventPrinter;
class QVHostSession;
struct QVHostOptions;
struct QVNotification;

class QVServeLoop {
public:
  QVServeLoop(const QVHostOptions& options, QVHostSession& session, QVEventPrinter& printer);

  // Runs until "quit", the end of stdin or an interrupt; the exit status.
  int run();

private:
  void perform(const std::string& line);
  bool perform(const QVHostCommand& command, std::string* error);
  bool saveBack(const std::string& copy, std::string* error);
  void notificationArrived(const QVNotification& notification);
  void emitDocuments();

  const QVHostOptions& options_;
  QVHostSession& session_;
  QVEventPrinter& printer_;
  bool quit_ = false;
};
