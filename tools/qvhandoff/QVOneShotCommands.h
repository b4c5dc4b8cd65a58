#pragma once
// The one-shot forms for scripts: each joins the network for as long as it needs, prints its result on
// stdout and returns the exit status; a failure is one line on stderr.

struct QVHostOptions;

class QVOneShotCommands {
public:
  static int peers(const QVHostOptions& options);
  static int get(const QVHostOptions& options);
  static int saveBack(const QVHostOptions& options);
  static int info(const QVHostOptions& options);
};
