// SPDX-License-Identifier: MIT
#pragma once
// The one-shot forms for scripts: each joins the network for as long as it needs, prints its result on
// stdout and returns the exit status (QVExitStatus); a failure is one line on stderr. Only `init` makes a
// shared key: the others leave a container without one as they found it.

struct QVHostOptions;

class QVOneShotCommands {
public:
  static int init(const QVHostOptions& options);
  static int peers(const QVHostOptions& options);
  static int get(const QVHostOptions& options);
  static int saveBack(const QVHostOptions& options);
  static int markModified(const QVHostOptions& options);
  static int info(const QVHostOptions& options);
};
