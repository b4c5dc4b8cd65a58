#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Sets the machine up, builds and runs every test. Extra arguments go to cmake's configure step
# (for example -DQVHANDOFF_SANITIZE=ON); QVHANDOFF_BUILD_DIR picks the build folder,
# QVHANDOFF_BUILD_TARGETS limits what is built and QVHANDOFF_CTEST_ARGS what runs (for example "-L unit").
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
build=${QVHANDOFF_BUILD_DIR:-build}
cmake -S . -B "$build" -DQVHANDOFF_WERROR=ON "$@" >/dev/null
targets=()
for target in ${QVHANDOFF_BUILD_TARGETS:-}; do targets+=(--target "$target"); done
cmake --build "$build" -j "$(nproc)" "${targets[@]}"
cd "$build"
ctest --output-on-failure -j "$(nproc)" ${QVHANDOFF_CTEST_ARGS:-}
