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
  QVExampleWalk::Options options;
  options.productName = "qt-host";
  unsigned waitSeconds = 10;
  bool requirePeer = false;
  if (!QVExampleParse(argc, argv, options, waitSeconds, requirePeer)) {
    std::fprintf(stderr, "usage: qt-host CONTAINER DOCUMENT [--wait SECONDS] [--require-peer]\n");
    return 2;
  }
  std::printf("QVHandoff %s on Qt %s\n", QVHANDOFF_VERSION_STRING, qVersion());

  QVHandoffUseQtEventLoop();
  QVExampleWalk walk(options, [](int result) { QCoreApplication::exit(result); });
  QTimer::singleShot(std::chrono::seconds(waitSeconds), &application, [&] {
    std::printf("no peer handed a document within the wait\n");
    walk.finish(requirePeer ? 1 : 0);
  });
  walk.start();
  const int status = QCoreApplication::exec();
  std::printf("exit %d\n", status);
  return status;
}
