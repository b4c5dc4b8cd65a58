# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Sourced by the demo and the host benchmark: `qvhandoff serve` hosts A, B... in network namespaces made
# by scripts/netns.sh, each driven through a pipe and read through its event file. Root only. Everything
# is removed by hosts_cleanup, which the caller runs on exit.
#
#   hosts_create N              namespaces for N hosts; sets HOSTS_WORK (a scratch folder) and QV_NS_x etc.
#   host_serve X CONTAINER [qvhandoff serve arguments...]
#   host_send X LINE            one command on the host's stdin
#   host_mark X                 how many events the host has printed so far
#   host_wait X FILTER SECONDS [MARK]   the first event after MARK that passes the jq FILTER
#   host_tool X ARGUMENTS...    a one-shot qvhandoff command on host X (same cache folder, same host name)
#   hosts_cleanup

QVHANDOFF=${QVHANDOFF:-build/tools/qvhandoff/qvhandoff}
hosts_pids=()
hosts_fds=()
hosts_run=

hosts_create() {
  local output letter ns link address
  HOSTS_WORK=$(mktemp -d /tmp/qvhandoff-hosts.XXXXXX)
  output=$(scripts/netns.sh create "$1" $$)
  hosts_run=$(awk '$1 == "run" {print $2}' <<<"$output")
  while read -r _ letter ns link address; do
    export "QV_NS_$letter=$ns" "QV_IF_$letter=$link" "QV_ADDR_$letter=$address"
  done < <(awk '$1 == "host"' <<<"$output")
}

# The command line that runs qvhandoff on host $1: its namespace, its cache folder, the embedded stack on
# its own interface under one host name (stacks that share a namespace must share it).
host_command() {
  local letter=$1 ns_var="QV_NS_$1" if_var="QV_IF_$1"
  HOST_COMMAND=(ip netns exec "${!ns_var}" env "XDG_CACHE_HOME=$HOSTS_WORK/cache-$letter"
    "XDG_STATE_HOME=$HOSTS_WORK/state-$letter" "$QVHANDOFF"
    --dnssd embedded --interface "${!if_var}" --host-name "host-${letter,,}")
}

host_serve() {
  local letter=$1 container=$2 fd
  shift 2
  mkfifo "$HOSTS_WORK/$letter.in"
  host_command "$letter"
  "${HOST_COMMAND[@]}" --container "$container" serve "$@" \
    <"$HOSTS_WORK/$letter.in" >"$HOSTS_WORK/$letter.events" 2>"$HOSTS_WORK/$letter.log" &
  hosts_pids+=($!)
  exec {fd}>"$HOSTS_WORK/$letter.in"
  hosts_fds+=("$fd")
  eval "host_fd_$letter=$fd"
}

host_send() {
  local fd_var="host_fd_$1"
  echo "$2" >&"${!fd_var}"
}

host_mark() { wc -l <"$HOSTS_WORK/$1.events"; }

host_wait() {
  local letter=$1 filter=$2 seconds=$3 mark=${4:-0} line deadline=$((SECONDS + $3))
  while [ "$SECONDS" -le "$deadline" ]; do
    line=$(tail -n +"$((mark + 1))" "$HOSTS_WORK/$letter.events" | jq -c "select($filter)" 2>/dev/null | head -1)
    if [ -n "$line" ]; then
      echo "$line"
      return 0
    fi
    sleep 0.05
  done
  echo "host $letter printed no event $filter within $seconds s (log: $HOSTS_WORK/$letter.log)" >&2
  return 1
}

host_tool() {
  local letter=$1
  shift
  host_command "$letter"
  "${HOST_COMMAND[@]}" "$@" 2>>"$HOSTS_WORK/$letter-oneshot.log"
}

hosts_cleanup() {
  local fd pid
  for fd in "${hosts_fds[@]}"; do exec {fd}>&-; done
  # The end of their input makes the hosts withdraw and quit; whatever still runs goes with the namespaces.
  for pid in "${hosts_pids[@]}"; do
    for _ in $(seq 1 30); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
  done
  [ -n "$hosts_run" ] && scripts/netns.sh remove "$hosts_run"
  wait 2>/dev/null || true
  [ -n "${HOSTS_WORK:-}" ] && rm -rf "$HOSTS_WORK"
  return 0
}
