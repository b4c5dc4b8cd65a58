#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs the library into a staging prefix as a host would get it, checks that every installed header
# compiles on its own with nothing but the installed include folder, then builds the examples from outside
# the source tree against it (CMake package, and pkg-config for the GLib one) and runs them.
#   .ci/examples.sh [BUILD_FOLDER [CMAKE_OPTION...]]   (default build-examples; -DQVHANDOFF_SHARED=OFF for static)
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir=$PWD
build=${1:-build-examples}
shift || true
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
stage=$work/stage

launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S . -B "$build" -DQVHANDOFF_WERROR=ON -DQVHANDOFF_TESTS=OFF "${launcher[@]}" "$@" >/dev/null
cmake --build "$build" -j2
cmake --install "$build" --prefix "$stage" >/dev/null
echo "examples: installed into $stage"

# No installed header reaches a private header or a C library's.
failed=0
while IFS= read -r header; do
  name=${header#"$stage/include/"}
  if grep -nE '#include *[<"](avahi-|curl/|microhttpd|openssl/|plist/|spdlog/|fmt/)' "$header"; then
    echo "examples: $name includes a C library's or the logging library's header" >&2
    failed=1
  fi
  if ! printf '#include <%s>\n' "$name" | g++ -std=c++20 -Wall -Wextra -Werror -fsyntax-only -I "$stage/include" -x c++ -; then
    echo "examples: $name does not compile on its own" >&2
    failed=1
  fi
done < <(find "$stage/include" -name '*.h' | sort)
[ "$failed" -eq 0 ] || exit 1
echo "examples: every installed header compiles on its own"

# The examples, from outside the source tree: GLib with the CMake package and with pkg-config, Qt with the
# CMake package.
cp -r examples "$work/examples"
cmake_example() {
  cmake -S "$work/examples/$1" -B "$work/$1-cmake" -DCMAKE_PREFIX_PATH="$stage" \
    -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" "${launcher[@]}" >/dev/null
  cmake --build "$work/$1-cmake" -j2 >/dev/null
  # Runs from the staging prefix as it would from /usr.
  echo "$work/$1-cmake/$1"
}
glib_cmake=$(cmake_example glib-host)
qt_cmake=$(cmake_example qt-host)
glib_pc=$work/glib-host-pkg-config
# shellcheck disable=SC2046
g++ -std=c++20 -Wall -Wextra -Werror -I "$work/examples/common" "$work/examples/glib-host/main.cpp" -o "$glib_pc" \
  $(PKG_CONFIG_PATH="$stage/lib/pkgconfig" pkg-config --cflags --libs qvhandoff-glib) -Wl,-rpath,"$stage/lib"
echo "examples: built glib-host (CMake package, pkg-config) and qt-host (CMake package)"

# Each example runs against `qvhandoff serve` in another namespace of a private network: it hands the peer's
# document off, edits it, saves it back and stops the service from inside the save back's completion.
if [ "$(id -u)" -ne 0 ] || ! command -v ip >/dev/null; then
  echo "examples: not run: making network namespaces needs root" >&2
  exit 0
fi
export QVHANDOFF_EXAMPLES="$glib_cmake $glib_pc $qt_cmake" QVHANDOFF_STAGE=$stage QVHANDOFF_WORK=$work
scripts/netns.sh run 2 -- bash -c '
  set -euo pipefail
  container=$QVHANDOFF_WORK/container
  mkdir -p "$container" "$QVHANDOFF_WORK/a" "$QVHANDOFF_WORK/b"
  echo "the peer'"'"'s document" >"$QVHANDOFF_WORK/b/Report.txt"
  echo "this host'"'"'s document" >"$QVHANDOFF_WORK/a/Notes.txt"
  common=(env QVHANDOFF_DNSSD=embedded HOME="$QVHANDOFF_WORK/a" XDG_CACHE_HOME="$QVHANDOFF_WORK/a/cache"
          XDG_STATE_HOME="$QVHANDOFF_WORK/a/state")
  # The peer lives as long as its input stays open, and no longer than the whole run.
  (sleep 120 | ip netns exec "$QV_NS_B" env QVHANDOFF_DNSSD=embedded HOME="$QVHANDOFF_WORK/b" \
     XDG_CACHE_HOME="$QVHANDOFF_WORK/b/cache" XDG_STATE_HOME="$QVHANDOFF_WORK/b/state" \
     timeout 150 "$QVHANDOFF_STAGE/bin/qvhandoff" serve --container "$container" --product-name peer \
     "$QVHANDOFF_WORK/b/Report.txt" >"$QVHANDOFF_WORK/peer.log" 2>&1) &
  peer=$!
  trap "kill $peer 2>/dev/null || true" EXIT
  sleep 2
  status=0
  for example in $QVHANDOFF_EXAMPLES; do
    echo "examples: running $(basename "$example")"
    if ! ip netns exec "$QV_NS_A" "${common[@]}" timeout 60 "$example" "$container" \
         "$QVHANDOFF_WORK/a/Notes.txt" --wait 30 --require-peer; then
      echo "examples: $(basename "$example") failed" >&2
      status=1
    fi
  done
  grep -c "edited by" "$QVHANDOFF_WORK/b/Report.txt" | sed "s/^/examples: edits saved back into the peer'"'"'s document: /"
  exit $status
'
echo "examples: every example ran"
