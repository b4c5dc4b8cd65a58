#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Discovery as the host sees it, between two `qvhandoff serve` hosts in network namespaces: from A's start
# to A listed (with its documents) on B, and from a change of A's front document to B's list showing it.
# A few bounded runs, each on fresh namespaces; prints each measurement, then min / median / max. Root only.
#
#   bench/host-discovery.sh [--runs N] [--changes K] [--tool PATH]
set -euo pipefail
cd "$(dirname "$0")/.."

runs=5
changes=5
QVHANDOFF=build/tools/qvhandoff/qvhandoff
while [ $# -gt 0 ]; do
  case "$1" in
  --runs) runs=$2; shift 2 ;;
  --changes) changes=$2; shift 2 ;;
  --tool) QVHANDOFF=$2; shift 2 ;;
  *) sed -n '2,6p' "$0" >&2; exit 2 ;;
  esac
done
QVHANDOFF=$(realpath "$QVHANDOFF")
# shellcheck source=scripts/hosts.sh
source scripts/hosts.sh

us() { jq .us <<<"$1"; }
servers='.event == "QVHandoffManagerDidUpdateServersInfoNotification"'

one_run() {
  trap hosts_cleanup EXIT
  hosts_create 2
  local container=$HOSTS_WORK/container start published listed i mark changed seen
  mkdir -p "$container"
  printf 'one' >"$HOSTS_WORK/one.txt"
  printf 'two' >"$HOSTS_WORK/two.txt"
  # B first, and the key in place: what is measured is A joining a network that already runs.
  host_serve B "$container"
  host_wait B '.event == "published"' 20 >/dev/null
  host_serve A "$container" "$HOSTS_WORK/one.txt" "$HOSTS_WORK/two.txt"
  start=$(us "$(host_wait A '.event == "started"' 20)")
  published=$(host_wait A '.event == "published"' 20)
  local name=$(jq -r .name <<<"$published")
  listed=$(host_wait B "$servers and any(.peers[]; .device == \"$name\" and (.documents | length) == 2)" 20)
  echo "{\"kind\":\"start-to-published\",\"ms\":$((($(us "$published") - start) / 1000))}"
  echo "{\"kind\":\"start-to-listed\",\"ms\":$((($(us "$listed") - start) / 1000))}"

  for i in $(seq 1 "$changes"); do
    local index=$((i % 2)) mark_a
    mark_a=$(host_mark A)
    mark=$(host_mark B)
    host_send A "activate $index"
    changed=$(us "$(host_wait A ".event == \"documents\" and .activeIndex == $index" 10 "$mark_a")")
    seen=$(us "$(host_wait B "$servers and any(.peers[]; .device == \"$name\" and .activeIndex == $index)" 10 "$mark")")
    echo "{\"kind\":\"change-to-fresh-list\",\"ms\":$(((seen - changed) / 1000))}"
    sleep 0.3
  done
}

results=$(mktemp)
trap 'rm -f "$results"' EXIT
for run in $(seq 1 "$runs"); do
  (one_run) | tee -a "$results"
done
echo "# $runs runs (milliseconds: min median max, count)"
jq -rs 'group_by(.kind)[] | (map(.ms) | sort) as $v |
  "\(.[0].kind): \($v[0]) \($v[($v | length) / 2 | floor]) \($v[-1]) (n=\($v | length))"' "$results"
