#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Discovery latency between two hosts in network namespaces: from publish() on A to "found" and to
# "resolved" on B, and from a TXT update on A to the new record seen by B's monitor. A few bounded runs,
# each on fresh namespaces; prints each measurement, then min / median / max per kind. Root only.
#
#   bench/discovery.sh [--runs N] [--txt-updates K] [--mode embedded|daemon] [--probe PATH]
set -euo pipefail
cd "$(dirname "$0")/.."

runs=5
updates=5
mode=embedded
probe=build/tests/qvhandoff_dnssd_probe
while [ $# -gt 0 ]; do
  case "$1" in
  --runs) runs=$2; shift 2 ;;
  --txt-updates) updates=$2; shift 2 ;;
  --mode) mode=$2; shift 2 ;;
  --probe) probe=$2; shift 2 ;;
  --one-run) inner=1; shift ;;
  *) sed -n '2,7p' "$0" >&2; exit 2 ;;
  esac
done
probe=$(realpath "$probe")
type="_qvhandoff0A1B2C3D-4E5F-6071-8293-A4B5C6D7E8F9._tcp"

# The first event of `file` matching the jq filter, waiting at most `seconds`.
wait_event() {
  local file=$1 filter=$2 seconds=$3 line
  for _ in $(seq 1 $((seconds * 20))); do
    line=$(jq -c "select($filter)" "$file" 2>/dev/null | head -1)
    if [ -n "$line" ]; then echo "$line"; return 0; fi
    sleep 0.05
  done
  echo "discovery.sh: no event $filter in $file" >&2
  return 1
}

one_run() {
  local launcher_a launcher_b
  pids=()
  work=$(mktemp -d)
  trap 'exec 3>&- 4>&- 5>&- 6>&-; for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; wait; rm -rf "$work"' EXIT
  mkfifo "$work/a.in" "$work/b.in"
  if [ "$mode" = daemon ]; then
    mkfifo "$work/da.in" "$work/db.in"
    ip netns exec "$QV_NS_A" tests/tools/dnssd_daemons.sh host-a "$QV_IF_A" <"$work/da.in" >"$work/da.out" 2>&1 &
    pids+=($!)
    exec 5>"$work/da.in"
    ip netns exec "$QV_NS_B" tests/tools/dnssd_daemons.sh host-b "$QV_IF_B" <"$work/db.in" >"$work/db.out" 2>&1 &
    pids+=($!)
    exec 6>"$work/db.in"
    wait_event "$work/da.out" '.event == "ready"' 10 >/dev/null
    wait_event "$work/db.out" '.event == "ready"' 10 >/dev/null
    launcher_a=(nsenter -t "${pids[0]}" -m -n "$probe" --mode daemon)
    launcher_b=(nsenter -t "${pids[1]}" -m -n "$probe" --mode daemon)
  else
    launcher_a=(ip netns exec "$QV_NS_A" "$probe" --mode embedded --interface "$QV_IF_A" --host-name host-a)
    launcher_b=(ip netns exec "$QV_NS_B" "$probe" --mode embedded --interface "$QV_IF_B" --host-name host-b)
  fi

  "${launcher_b[@]}" --type "$type" --browse --resolve --monitor --duration 60 <"$work/b.in" >"$work/b.out" 2>"$work/b.err" &
  pids+=($!)
  exec 4>"$work/b.in"
  wait_event "$work/b.out" '.event == "browsing"' 10 >/dev/null
  "${launcher_a[@]}" --type "$type" --publish "Bench A" --port 4242 --txt hasDocs=0 --duration 60 \
    <"$work/a.in" >"$work/a.out" 2>"$work/a.err" &
  pids+=($!)
  exec 3>"$work/a.in"

  local start found resolved published
  start=$(wait_event "$work/a.out" '.event == "publishing"' 10 | jq .us)
  published=$(wait_event "$work/a.out" '.event == "published"' 15 | jq .us)
  found=$(wait_event "$work/b.out" '.event == "found" and .name == "Bench A"' 15 | jq .us)
  resolved=$(wait_event "$work/b.out" '.event == "resolved" and .name == "Bench A"' 15 | jq .us)
  echo "{\"kind\":\"publish-to-published\",\"ms\":$(((published - start) / 1000))}"
  echo "{\"kind\":\"publish-to-found\",\"ms\":$(((found - start) / 1000))}"
  echo "{\"kind\":\"publish-to-resolved\",\"ms\":$(((resolved - start) / 1000))}"

  local i set seen
  for i in $(seq 1 "$updates"); do
    echo "txt hasDocs=1 dateMark=update-$i" >&3
    set=$(wait_event "$work/a.out" ".event == \"txtSet\" and .txt.dateMark == \"update-$i\"" 10 | jq .us)
    seen=$(wait_event "$work/b.out" ".event == \"txt\" and .txt.dateMark == \"update-$i\"" 10 | jq .us)
    echo "{\"kind\":\"txt-to-seen\",\"ms\":$(((seen - set) / 1000))}"
    sleep 0.3
  done
  echo quit >&3
}

if [ "${inner:-0}" = 1 ]; then
  one_run
  exit 0
fi

results=$(mktemp)
trap 'rm -f "$results"' EXIT
for run in $(seq 1 "$runs"); do
  scripts/netns.sh run 2 -- "$0" --mode "$mode" --txt-updates "$updates" --probe "$probe" \
    --one-run | tee -a "$results"
done
echo "# $runs runs, mode $mode (milliseconds: min median max, count)"
jq -rs 'group_by(.kind)[] | (map(.ms) | sort) as $v |
  "\(.[0].kind): \($v[0]) \($v[($v | length) / 2 | floor]) \($v[-1]) (n=\($v | length))"' "$results"
