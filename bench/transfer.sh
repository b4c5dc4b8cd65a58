#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# A 1 GiB handoff and save back over the loopback, each between two fresh processes (the peer's server
# and this device's client), beside what the same bytes cost in the same run: the cipher alone
# (openssl enc -aes-256-cbc | openssl enc -d), plain HTTP (nginx + curl) and scp over a local sshd.
# Also the peak RSS (VmHWM) of both sides at 1 MB and at 1 GiB. Run by hand, as root, from anywhere:
#
#   bench/transfer.sh [--build DIR] [--mib N] [--rounds N]
#
# Every contender starts from the same page cache: the document cached and nothing dirty left by the one
# before. The contenders take turns for --rounds rounds (default 5), in an order that turns each round,
# and each one's best rate counts, so that a burst of load on a shared machine does not decide a ratio;
# RSS is the highest of the rounds.
# nginx and openssh-server are installed with apt when missing (their packaged services kept from
# starting); both run with this script's own configuration on 127.0.0.1 only and are stopped on exit.
set -euo pipefail
cd "$(dirname "$0")/.."

build=build-bench
mib=1024
rounds=5
while [ $# -gt 0 ]; do
  case "$1" in
  --build) build=$2; shift 2 ;;
  --mib) mib=$2; shift 2 ;;
  --rounds) rounds=$2; shift 2 ;;
  *) sed -n '2,14p' "$0" >&2; exit 2 ;;
  esac
done

# Built as shipped (see README.md), and always from the tree as it is now.
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=MinSizeRel -DQVHANDOFF_BENCH=ON -DQVHANDOFF_TESTS=OFF >/dev/null
cmake --build "$build" -j2 --target qvhandoff_bench_transfer >/dev/null
bin=$(realpath "$build/bench/qvhandoff_bench_transfer")

# The packages' own services must not start (they would listen on every interface).
install_packages() {
  local missing=()
  command -v nginx >/dev/null || [ -x /usr/sbin/nginx ] || missing+=(nginx)
  [ -x /usr/sbin/sshd ] || missing+=(openssh-server)
  [ ${#missing[@]} -eq 0 ] && return
  printf '#!/bin/sh\nexit 101\n' >/usr/sbin/policy-rc.d
  chmod +x /usr/sbin/policy-rc.d
  DEBIAN_FRONTEND=noninteractive apt-get install -y -q "${missing[@]}" >/dev/null ||
    { apt-get update -q >/dev/null && DEBIAN_FRONTEND=noninteractive apt-get install -y -q "${missing[@]}" >/dev/null; }
  rm -f /usr/sbin/policy-rc.d
}
install_packages

work=$(mktemp -d /tmp/qvhandoff-transfer-bench-XXXXXX)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}
now() { date +%s.%N; }
# MB/s of `bytes` moved between two `now` readings.
rate() { python3 -c "print(f'{$1 / ($3 - $2) / 1e6:.1f}')"; }
field() { sed -n "s/.*$1=\([^ ]*\).*/\1/p" <<<"$2"; }
larger() { python3 -c "print(max($1, $2))"; }

key=$(openssl rand -hex 32)
iv=00000000000000000000000000000000
big=$work/Document.bin
small=$work/Small.bin
head -c $((mib << 20)) /dev/urandom >"$big"
head -c 1000000 /dev/urandom >"$small"
bytes=$((mib << 20))
mkdir -p "$work/tmp" "$work/cache" "$work/saved"
# Written back now, so that no contender pays for the disk writes of the one before it.
settle() { sync; }

# One framework transfer between a fresh server and a fresh client; prints "MBps serverKiB clientKiB".
framework() {
  local mode=$1 file=$2 port client server
  coproc SERVER { TMPDIR=$work/tmp exec "$bin" serve "$key"; }
  local server_pid=$SERVER_PID
  read -r port <&"${SERVER[0]}"
  settle
  if [ "$mode" = get ]; then
    client=$(TMPDIR=$work/tmp XDG_CACHE_HOME=$work/cache "$bin" get "$port" "$key" "$file")
  else
    client=$(TMPDIR=$work/tmp XDG_CACHE_HOME=$work/cache "$bin" save-back "$port" "$key" "$file" \
      "$work/saved/$(basename "$file")")
  fi
  eval "exec ${SERVER[1]}>&-"
  read -r server <&"${SERVER[0]}"
  wait "$server_pid" || true
  rm -rf "$work/saved"/* "$work/cache"/*
  echo "$(field MBps "$client") $(field peakRSSKiB "$server") $(field peakRSSKiB "$client")"
}

openssl_run() {
  settle
  local t0 t1
  t0=$(now)
  openssl enc -aes-256-cbc -K "$key" -iv "$iv" -in "$big" |
    openssl enc -d -aes-256-cbc -K "$key" -iv "$iv" >/dev/null
  t1=$(now)
  rate "$bytes" "$t0" "$t1"
}

mkdir -p "$work/nginx"
nginx_port=$(free_port)
cat >"$work/nginx/nginx.conf" <<EOF
user $(id -un);
daemon off;
worker_processes 1;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log;
events { worker_connections 64; }
http {
  access_log off;
  sendfile on;
  client_body_temp_path $work/nginx/body;
  proxy_temp_path $work/nginx/proxy;
  fastcgi_temp_path $work/nginx/fastcgi;
  uwsgi_temp_path $work/nginx/uwsgi;
  scgi_temp_path $work/nginx/scgi;
  server { listen 127.0.0.1:$nginx_port; root $work; }
}
EOF
nginx -p "$work/nginx" -c "$work/nginx/nginx.conf" &
pids+=($!)
for _ in $(seq 50); do curl -s -o /dev/null "http://127.0.0.1:$nginx_port/" && break; sleep 0.1; done
curl_run() {
  settle
  local t0 t1
  t0=$(now)
  curl -s -f -o "$work/curl-copy" "http://127.0.0.1:$nginx_port/$(basename "$big")"
  t1=$(now)
  rm -f "$work/curl-copy"
  rate "$bytes" "$t0" "$t1"
}

mkdir -p "$work/ssh" /run/sshd
ssh_port=$(free_port)
ssh-keygen -q -t ed25519 -N '' -f "$work/ssh/host_key"
ssh-keygen -q -t ed25519 -N '' -f "$work/ssh/client_key"
cp "$work/ssh/client_key.pub" "$work/ssh/authorized_keys"
cat >"$work/ssh/sshd_config" <<EOF
Port $ssh_port
ListenAddress 127.0.0.1
HostKey $work/ssh/host_key
PidFile $work/ssh/sshd.pid
AuthorizedKeysFile $work/ssh/authorized_keys
PermitRootLogin prohibit-password
PasswordAuthentication no
KbdInteractiveAuthentication no
UsePAM no
StrictModes no
Subsystem sftp internal-sftp
EOF
/usr/sbin/sshd -D -f "$work/ssh/sshd_config" -E "$work/ssh/sshd.log" &
pids+=($!)
ssh_options=(-q -i "$work/ssh/client_key" -P "$ssh_port" -o StrictHostKeyChecking=no
  -o UserKnownHostsFile=/dev/null -o BatchMode=yes)
for _ in $(seq 50); do
  scp "${ssh_options[@]}" "$(id -un)@127.0.0.1:$small" "$work/scp-copy" 2>/dev/null && break
  sleep 0.1
done
scp_run() {
  settle
  local t0 t1
  t0=$(now)
  scp "${ssh_options[@]}" "$(id -un)@127.0.0.1:$big" "$work/scp-copy"
  t1=$(now)
  rm -f "$work/scp-copy"
  rate "$bytes" "$t0" "$t1"
}

get_rate=0 save_rate=0 openssl_rate=0 curl_rate=0 scp_rate=0
get_server=0 get_client=0 save_server=0 save_client=0
get_server_small=0 get_client_small=0 save_server_small=0 save_client_small=0
# One contender's turn; the framework's turn also measures both transfers at 1 MB.
turn() {
  case "$1" in
  get)
    read -r r s c < <(framework get "$big")
    get_rate=$(larger "$get_rate" "$r") get_server=$(larger "$get_server" "$s") get_client=$(larger "$get_client" "$c")
    read -r _ s c < <(framework get "$small")
    get_server_small=$(larger "$get_server_small" "$s") get_client_small=$(larger "$get_client_small" "$c") ;;
  save-back)
    read -r r s c < <(framework save-back "$big")
    save_rate=$(larger "$save_rate" "$r") save_server=$(larger "$save_server" "$s")
    save_client=$(larger "$save_client" "$c")
    read -r _ s c < <(framework save-back "$small")
    save_server_small=$(larger "$save_server_small" "$s") save_client_small=$(larger "$save_client_small" "$c") ;;
  openssl) openssl_rate=$(larger "$openssl_rate" "$(openssl_run)") ;;
  curl) curl_rate=$(larger "$curl_rate" "$(curl_run)") ;;
  scp) scp_rate=$(larger "$scp_rate" "$(scp_run)") ;;
  esac
}

# The order turns by one each round, so that no contender always follows the same one (on a virtual
# machine, what the one before freed decides how much of the next one's memory is already backed).
contenders=(get save-back openssl curl scp)
for round in $(seq "$rounds"); do
  order=("${contenders[@]:round % 5}" "${contenders[@]:0:round % 5}")
  echo "== round $round of $rounds: ${order[*]}" >&2
  for contender in "${order[@]}"; do turn "$contender"; done
done

ratio() { python3 -c "print(f'{$1 / $2:.2f}')"; }
mib_of() { python3 -c "print(f'{$1 / 1024:.1f}')"; }
printf '\n%-30s %9s %10s %8s %22s %22s\n' "transfer ($mib MiB, best of $rounds)" "MB/s" "/openssl" "/scp" \
  "server RSS MiB (1 MB)" "client RSS MiB (1 MB)"
printf '%-30s %9s %10s %8s %22s %22s\n' "handoff (get)" "$get_rate" "$(ratio "$get_rate" "$openssl_rate")" \
  "$(ratio "$get_rate" "$scp_rate")" "$(mib_of "$get_server") ($(mib_of "$get_server_small"))" \
  "$(mib_of "$get_client") ($(mib_of "$get_client_small"))"
printf '%-30s %9s %10s %8s %22s %22s\n' "save back" "$save_rate" "$(ratio "$save_rate" "$openssl_rate")" \
  "$(ratio "$save_rate" "$scp_rate")" "$(mib_of "$save_server") ($(mib_of "$save_server_small"))" \
  "$(mib_of "$save_client") ($(mib_of "$save_client_small"))"
printf '%-30s %9s\n' "openssl enc | openssl enc -d" "$openssl_rate"
printf '%-30s %9s\n' "nginx + curl (plain HTTP)" "$curl_rate"
printf '%-30s %9s\n' "scp (local sshd)" "$scp_rate"
