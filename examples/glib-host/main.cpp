// SPDX-License-Identifier: MIT
// A GLib host: everything the library does for it runs on g_main_loop_run.
//   glib-host CONTAINER DOCUMENT [--wait SECONDS] [--require-peer]

#include "QVExampleWalk.h"

#include <QVHandoff/QVHandoffGLib.h>
#include <glib.h>

#include <cstdio>
#include <memory>

int main(int argc, char** argv) {
  QVExampleArguments arguments;
  if (!arguments.parse(argc, argv)) return 2;
  std::printf("QVHandoff %s on GLib %u.%u\n", QVHANDOFF_VERSION_STRING, glib_major_version,
              glib_minor_version);

  const std::unique_ptr<GMainLoop, void (*)(GMainLoop*)> loop(g_main_loop_new(nullptr, FALSE),
                                                              g_main_loop_unref);
  int status = 0;
  QVHandoffUseGLibMainContext();
  QVExampleWalk walk(arguments.options, [&](int result) {
    status = result;
    g_main_loop_quit(loop.get());
  });
  struct Timeout {
    QVExampleWalk* walk;
    bool requirePeer;
  } timeout{&walk, arguments.requirePeer};
  g_timeout_add_seconds(
      arguments.waitSeconds,
      [](gpointer data) -> gboolean {
        auto* t = static_cast<Timeout*>(data);
        std::printf("no peer handed a document within the wait\n");
        t->walk->finish(t->requirePeer ? 1 : 0);
        return G_SOURCE_REMOVE;
      },
      &timeout);
  walk.start();
  g_main_loop_run(loop.get());
  std::printf("exit %d\n", status);
  return status;
}
