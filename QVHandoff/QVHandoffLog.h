// SPDX-License-Identifier: MIT
#pragma once
// The library's log lines, for a host that wants them in its own log. Without a handler they go to stderr
// (with journald priority prefixes when stderr is the journal). The library keeps its loggers to itself:
// nothing is added to a logging library's global registry, and no level but its own is changed.

#include "QVHandoff/QVHandoffExport.h"

#include <functional>
#include <string>

/// How much a line matters, least first; Off silences every line.
enum class QVHandoffLogLevel { Trace, Debug, Info, Warning, Error, Off };

/// Receives one line: its level, its source ("QVHandoff/QVHandoffManager"), its operation
/// ("QVHandoffManager::startHandoffService") and the message. Called on whatever thread logs, one line at
/// a time; it must not call back into the library.
using QVHandoffLogHandler = std::function<void(QVHandoffLogLevel level, const std::string& source,
                                               const std::string& operation, const std::string& message)>;

/// Sends every line to `handler`; an empty handler sends them to stderr again.
QVHANDOFF_EXPORT void QVHandoffSetLogHandler(QVHandoffLogHandler handler);

/// Lines below `level` are not formatted at all. The default is Info, or QVHANDOFF_LOG_LEVEL (trace, debug,
/// info, warning, error, off) when set.
QVHANDOFF_EXPORT void QVHandoffSetLogLevel(QVHandoffLogLevel level);
/// The level lines are filtered at now: the last one set, else the environment's or Info.
QVHANDOFF_EXPORT QVHandoffLogLevel QVHandoffLogLevelInEffect();
