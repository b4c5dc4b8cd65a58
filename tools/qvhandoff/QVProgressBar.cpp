// SPDX-License-Identifier: MIT
#include "QVProgressBar.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace {
constexpr int kWidth = 30;
}

QVProgressBar::QVProgressBar(std::string label) : label_(std::move(label)), enabled_(isatty(STDERR_FILENO)) {}

QVProgressBar::~QVProgressBar() {
  if (drawn_) std::fputc('\n', stderr);
}

void QVProgressBar::update(float fraction) {
  if (!enabled_) return;
  const float clamped = std::clamp(fraction, 0.0f, 1.0f);
  const int percent = static_cast<int>(clamped * 100);
  if (percent == lastPercent_) return;
  lastPercent_ = percent;
  const int filled = static_cast<int>(clamped * kWidth);
  fmt::print(stderr, "\r{} [{}{}] {:3}%", label_, std::string(filled, '#'), std::string(kWidth - filled, ' '),
             percent);
  std::fflush(stderr);
  drawn_ = true;
}
