// SPDX-License-Identifier: MIT
#pragma once
// Runs the library's main queue on a GLib main context (link QVHandoff::GLib or qvhandoff-glib).

#include "QVHandoff/QVHandoffExport.h"

typedef struct _GMainContext GMainContext;

/// From now on every main-queue task and timer of the library runs on `context` (the global default context
/// when null), and the library never runs a loop of its own. Call it on the thread that iterates `context`,
/// before the manager is first used: that thread becomes the library's main thread. The context is kept
/// alive until another dispatcher replaces this one.
QVHANDOFF_EXPORT void QVHandoffUseGLibMainContext(GMainContext* context = nullptr);
