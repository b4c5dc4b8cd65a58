#!/usr/bin/env bash
# Sets the machine up, builds and runs every test. Extra arguments go to cmake's configure step
# (for example -DQVHANDOFF_SANITIZE=ON); QVHANDOFF_BUILD_DIR picks the build folder.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
build=${QVHANDOFF_BUILD_DIR:-build}
cmake -S . -B "$build" -DQVHANDOFF_WERROR=ON "$@" >/dev/null
cmake --build "$build" -j "$(nproc)"
cd "$build"
ctest --output-on-failure -j "$(nproc)" ${QVHANDOFF_CTEST_ARGS:-}
