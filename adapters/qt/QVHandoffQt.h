// SPDX-License-Identifier: MIT
#pragma once
// Runs the library's main queue on the QCoreApplication's event loop (link QVHandoff::Qt or qvhandoff-qt).

#include "QVHandoff/QVHandoffExport.h"

/// From now on every main-queue task and timer of the library runs on the thread of the QCoreApplication,
/// and the library never runs a loop of its own. Call it on that thread, after the application object
/// exists and before the manager is first used; without an application object it does nothing.
QVHANDOFF_EXPORT void QVHandoffUseQtEventLoop();
