#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds every fuzz target with clang (libFuzzer, AddressSanitizer, UBSan) and runs each for SECONDS
# (default 60) from its seed corpus. New inputs go to a scratch folder, crashes to the build folder; a
# crash fails the run. Usage: tests/fuzz/run.sh [SECONDS] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/../.."
seconds=${1:-60}
shift || true
build=${QVHANDOFF_FUZZ_BUILD_DIR:-build-fuzz}

CC=clang CXX=clang++ cmake -S . -B "$build" -DQVHANDOFF_FUZZ=ON -DQVHANDOFF_TESTS=OFF -DQVHANDOFF_TOOL=OFF \
  -DQVHANDOFF_GLIB=OFF -DQVHANDOFF_QT=OFF -DQVHANDOFF_INSTALL=OFF -DQVHANDOFF_SHARED=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$(nproc)" --target qvhandoff_fuzz >/dev/null

targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(MessageCodecFuzz TXTRecordFuzz MetaFileFuzz FormattersFuzz TabsListFuzz SaveBackQueryFuzz RequestReadersFuzz
  ServeInputLineFuzz)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failed=0
for target in "${targets[@]}"; do
  mkdir -p "$scratch/$target"
  log="$build/$target.log"
  if "$build/tests/fuzz/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=1024 \
    -dict=tests/fuzz/qvhandoff.dict -artifact_prefix="$build/$target-" -print_final_stats=1 \
    "$scratch/$target" "tests/fuzz/corpus/$target" >"$log" 2>&1; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    echo "fuzz: $target: ${runs:-?} executions, no crash"
  else
    echo "fuzz: $target: CRASH (input and trace: $build/$target-*, $log)"
    tail -n 30 "$log"
    failed=1
  fi
done
exit "$failed"
