// SPDX-License-Identifier: MIT
// A Qt host: everything the library does for it runs on the QCoreApplication's event loop.
//   qt-host CONTAINER DOCUMENT [--wait SECONDS] [--require-peer]

#include "QVExampleWalk.h"

#include <QCoreApplication>
#include <QTimer>
#include <QVHandoff/QVHandoffQt.h>

#include <cstdio>

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  QVExampleArguments arguments;
  if (!arguments.parse(argc, argv)) return 2;
  std::printf("QVHandoff %s on Qt %s\n", QVHANDOFF_VERSION_STRING, qVersion());

  QVHandoffUseQtEventLoop();
  QVExampleWalk walk(arguments.options, [](int result) { QCoreApplication::exit(result); });
  QTimer::singleShot(std::chrono::seconds(arguments.waitSeconds), &application, [&] {
    std::printf("no peer handed a document within the wait\n");
    walk.finish(arguments.requirePeer ? 1 : 0);
  });
  walk.start();
  const int status = QCoreApplication::exec();
  std::printf("exit %d\n", status);
  return status;
}
