// SPDX-License-Identifier: MIT
#pragma once
// A one-line progress bar on stderr, drawn only when stderr is a terminal; the line is ended when the bar
// goes away.

#include <string>

class QVProgressBar {
public:
  explicit QVProgressBar(std::string label);
  ~QVProgressBar();
  QVProgressBar(const QVProgressBar&) = delete;
  QVProgressBar& operator=(const QVProgressBar&) = delete;

  void update(float fraction);

private:
  std::string label_;
  bool enabled_;
  bool drawn_ = false;
  int lastPercent_ = -1;
};
