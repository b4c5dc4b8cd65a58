#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Private networks of hosts A, B, C... in network namespaces, for the DNS-SD tests, the discovery benchmark
# and the demo: nothing here touches this machine's own interfaces. Two hosts are joined by a veth pair,
# three or more by a bridge in a namespace of its own; host i of run X has 10.77.X.i/24 and lo up.
# Root only.
#
#   netns.sh create N [OWNER_PID]   prints "run RUN" and one "host LETTER NAMESPACE INTERFACE ADDRESS" line per
#                                   host; the run is removed by "prune" once OWNER_PID (default: the caller)
#                                   has exited
#   netns.sh remove RUN             ends what still runs in the run's namespaces and removes them
#   netns.sh prune                  removes the runs whose owner has exited
#   netns.sh run N -- COMMAND...    creates a run, runs COMMAND with QV_RUN and QV_NS_A, QV_IF_A, QV_ADDR_A...
#                                   set, and removes the run afterwards, also on failure or interruption
set -euo pipefail

state_dir=/run/qvhandoff-netns
letters=(A B C D E F G H I J K L M N O P Q R S T U V W X Y Z)

namespaces_of() { ip netns list | awk '{print $1}' | grep -E "^$1([A-Z]|br)\$" || true; }
links_of() { ip -o link show | awk -F': ' '{print $2}' | cut -d@ -f1 | grep -E "^$1[a-z]b?\$" || true; }

remove_run() {
  local run=$1 ns pids
  for ns in $(namespaces_of "$run"); do
    pids=$(ip netns pids "$ns" 2>/dev/null || true)
    if [ -n "$pids" ]; then
      kill -TERM $pids 2>/dev/null || true
      for _ in 1 2 3 4 5 6 7 8 9 10; do
        pids=$(ip netns pids "$ns" 2>/dev/null || true)
        [ -z "$pids" ] && break
        sleep 0.1
      done
      [ -n "$pids" ] && kill -KILL $pids 2>/dev/null || true
    fi
    ip netns del "$ns" 2>/dev/null || true
  done
  for link in $(links_of "$run"); do ip link del "$link" 2>/dev/null || true; done
  rm -f "$state_dir/$run.owner"
}

prune() {
  local file pid
  for file in "$state_dir"/*.owner; do
    [ -e "$file" ] || continue
    pid=$(cat "$file")
    kill -0 "$pid" 2>/dev/null || remove_run "$(basename "$file" .owner)"
  done
}

# Claims a run number by creating its host A namespace: `ip netns add` fails when it exists.
claim_run() {
  local owner=$1 x
  mkdir -p "$state_dir"
  for x in $(seq 1 254); do
    if ip netns add "qvd${x}A" 2>/dev/null; then
      echo "$owner" >"$state_dir/qvd${x}.owner"
      echo "$x"
      return 0
    fi
  done
  echo "netns.sh: no free run number" >&2
  return 1
}

create() {
  local count=$1 owner=${2:-$PPID} x run i letter ns link
  if [ "$count" -lt 2 ] || [ "$count" -gt ${#letters[@]} ]; then
    echo "netns.sh: between 2 and ${#letters[@]} hosts" >&2
    return 2
  fi
  prune
  x=$(claim_run "$owner")
  run="qvd$x"
  trap "remove_run $run" ERR
  for ((i = 1; i < count; i++)); do ip netns add "$run${letters[$i]}"; done
  if [ "$count" -eq 2 ]; then
    ip link add "${run}a" type veth peer name "${run}b"
    ip link set "${run}a" netns "${run}A"
    ip link set "${run}b" netns "${run}B"
  else
    ip netns add "${run}br"
    ip -n "${run}br" link add "${run}br0" type bridge
    ip -n "${run}br" link set "${run}br0" up
    for ((i = 0; i < count; i++)); do
      link="${run}${letters[$i],,}"
      ip link add "$link" type veth peer name "${link}b"
      ip link set "$link" netns "$run${letters[$i]}"
      ip link set "${link}b" netns "${run}br"
      ip -n "${run}br" link set "${link}b" master "${run}br0"
      ip -n "${run}br" link set "${link}b" up
    done
  fi
  echo "run $run"
  for ((i = 0; i < count; i++)); do
    letter=${letters[$i]}
    ns="$run$letter"
    link="${run}${letter,,}"
    ip -n "$ns" addr add "10.77.$x.$((i + 1))/24" dev "$link"
    ip -n "$ns" link set lo up
    ip -n "$ns" link set "$link" up
    echo "host $letter $ns $link 10.77.$x.$((i + 1))"
  done
  trap - ERR
}

run_command() {
  local count=$1 output run letter ns link address
  shift
  [ "${1:-}" = "--" ] && shift
  output=$(create "$count" $$)
  run=$(awk '$1 == "run" {print $2}' <<<"$output")
  trap "remove_run $run" EXIT
  trap 'exit 130' INT TERM
  export QV_RUN=$run
  while read -r _ letter ns link address; do
    export "QV_NS_$letter=$ns" "QV_IF_$letter=$link" "QV_ADDR_$letter=$address"
  done < <(awk '$1 == "host"' <<<"$output")
  "$@"
}

if [ "$(id -u)" -ne 0 ]; then
  echo "netns.sh: network namespaces need root" >&2
  exit 1
fi
case "${1:-}" in
create) create "${2:?host count}" "${3:-}" ;;
remove) remove_run "${2:?run}" ;;
prune) prune ;;
run) run_command "${2:?host count}" "${@:3}" ;;
*)
  sed -n '2,16p' "$0" >&2
  exit 2
  ;;
esac
