// SPDX-License-Identifier: MIT
#include "QVHandoffGLib.h"

#include "Foundation/QVCFree.h"
#include "Foundation/QVMainQueue.h"

#include <glib.h>

#include <algorithm>
#include <chrono>
#include <memory>

namespace {

using QVGMainContext = std::shared_ptr<GMainContext>;

// The task travels through GLib as the source's data; GLib destroys it whether or not the source ran.
void attach(GSource* source, GMainContext* context, QVMainQueue::Task task) {
  auto box = std::make_unique<QVMainQueue::Task>(std::move(task));
  g_source_set_callback(
      source,
      [](gpointer data) -> gboolean {
        (*static_cast<QVMainQueue::Task*>(data))();
        return G_SOURCE_REMOVE;
      },
      box.release(), [](gpointer data) { delete static_cast<QVMainQueue::Task*>(data); });
  g_source_attach(source, context);
  g_source_unref(source);
}

} // namespace

void QVHandoffUseGLibMainContext(GMainContext* context) {
  QVGMainContext shared(g_main_context_ref(context ? context : g_main_context_default()),
                        QVCFree<&g_main_context_unref>());
  QVMainQueue::Dispatcher dispatcher;
  // An idle source at default priority, not g_main_context_invoke: that would run the task inside the
  // caller when the caller already owns the context, and tasks must never run inside the code that posts.
  dispatcher.post = [shared](QVMainQueue::Task task) {
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    attach(source, shared.get(), std::move(task));
  };
  dispatcher.postAfter = [shared](QVMainQueue::Clock::duration delay, QVMainQueue::Task task) {
    // Rounded up: a timer never fires before its delay.
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(delay).count();
    attach(g_timeout_source_new(static_cast<guint>(std::max<int64_t>(milliseconds, 0))), shared.get(),
           std::move(task));
  };
  QVMainQueue::main().setDispatcher(std::move(dispatcher));
}
