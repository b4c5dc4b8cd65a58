// SPDX-License-Identifier: MIT
// A GLib host: everything the library does for it runs on g_main_loop_run.
//   glib-host CONTAINER DOCUMENT [--wait SECONDS] [--require-peer]

#include "QVExampleWalk.h"

#include <QVHandoff/QVHandoffGLib.h>
#include <glib.h>

#include <cstdio>

int main(int argc, char** argv) {
  QVExampleWalk::Options options;
  options.productName = "glib-host";
  unsigned waitSeconds = 10;
  bool requirePeer = false;
  if (!QVExampleParse(argc, argv, options, waitSeconds, requirePeer)) {
    std::fprintf(stderr, "usage: glib-host CONTAINER DOCUMENT [--wait SECONDS] [--require-peer]\n");
    return 2;
  }
  std::printf("QVHandoff %s on GLib %u.%u\n", QVHANDOFF_VERSION_STRING, glib_major_version,
              glib_minor_version);

  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  int status = 0;
  QVHandoffUseGLibMainContext();
  QVExampleWalk walk(options, [&](int result) {
    status = result;
    g_main_loop_quit(loop);
  });
  struct Timeout {
    QVExampleWalk* walk;
    bool requirePeer;
  } timeout{&walk, requirePeer};
  g_timeout_add_seconds(
      waitSeconds,
      [](gpointer data) -> gboolean {
        auto* t = static_cast<Timeout*>(data);
        std::printf("no peer handed a document within the wait\n");
        t->walk->finish(t->requirePeer ? 1 : 0);
        return G_SOURCE_REMOVE;
      },
      &timeout);
  walk.start();
  g_main_loop_run(loop);
  g_main_loop_unref(loop);
  std::printf("exit %d\n", status);
  return status;
}
