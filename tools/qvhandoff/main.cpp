// SPDX-License-Identifier: MIT
// qvhandoff: runs one installation of the handoff service from the command line (see --help).

#include "Foundation/QVLog.h"
#include "QVEventPrinter.h"
#include "QVExitStatus.h"
#include "QVHostInput.h"
#include "QVHostOptions.h"
#include "QVHostSession.h"
#include "QVOneShotCommands.h"
#include "QVServeLoop.h"

#include <iostream>

int main(int argc, char** argv) {
  auto parsed = QVHostOptions::parse(argc, argv);
  if (const int* status = std::get_if<int>(&parsed)) return *status;
  const QVHostOptions& options = std::get<QVHostOptions>(parsed);
  if (options.logLevel) QVLogging::setLevel(*options.logLevel);
  // Before any thread exists, so that every thread inherits the mask.
  QVHostInput::blockSignals();

  switch (options.command) {
  case QVHostOptions::Command::Serve: {
    QVEventPrinter printer(&std::cout);
    QVHostSession session(options, printer);
    return QVServeLoop(options, session, printer).run();
  }
  case QVHostOptions::Command::Init:
    return QVOneShotCommands::init(options);
  case QVHostOptions::Command::Peers:
    return QVOneShotCommands::peers(options);
  case QVHostOptions::Command::Get:
    return QVOneShotCommands::get(options);
  case QVHostOptions::Command::SaveBack:
    return QVOneShotCommands::saveBack(options);
  case QVHostOptions::Command::MarkModified:
    return QVOneShotCommands::markModified(options);
  case QVHostOptions::Command::Info:
    return QVOneShotCommands::info(options);
  }
  return QVExitCode(QVExitStatus::Usage);
}
