#!/bin/sh
# SPDX-License-Identifier: MIT
# A system bus and an mDNS daemon of their own for one network namespace, for the daemon-mode DNS-SD tests.
# Run it with `ip netns exec NS dnssd_daemons.sh HOST_NAME INTERFACE`: it mounts a private /run (the mount
# namespace is the one `ip netns exec` made), starts the daemons there, prints {"event":"ready"} and then
# reads commands on stdin: "stop-avahi" ends the mDNS daemon. The end of stdin ends everything. Other
# processes join with `nsenter -t PID -m -n`.
set -eu
host_name=$1
interface=$2

# Never in the machine's own network namespace: its interfaces are not ours.
if [ -z "$(ip netns identify $$)" ]; then
  echo '{"event":"refused","reason":"not inside a named network namespace"}'
  exit 1
fi

mount -t tmpfs -o mode=0755 tmpfs /run
mkdir -p /run/dbus /run/avahi-daemon
cat >/run/avahi-daemon.conf <<CONF
[server]
host-name=$host_name
use-ipv4=yes
use-ipv6=no
allow-interfaces=$interface
enable-dbus=yes
[wide-area]
enable-wide-area=no
[publish]
publish-hinfo=no
publish-workstation=no
publish-aaaa-on-ipv4=no
CONF

bus_pid=$(dbus-daemon --system --fork --print-pid)
avahi-daemon --no-drop-root --no-chroot --no-rlimits -f /run/avahi-daemon.conf >/run/avahi.log 2>&1 &
avahi_pid=$!
stop() {
  kill "$avahi_pid" "$bus_pid" 2>/dev/null || true
  wait "$avahi_pid" 2>/dev/null || true
}
trap stop EXIT

# Ready once the daemon owns its name on the bus (bounded: 10 s).
for _ in $(seq 1 100); do
  if dbus-send --system --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.NameHasOwner \
    string:org.freedesktop.Avahi 2>/dev/null | grep -q "boolean true"; then
    echo '{"event":"ready"}'
    break
  fi
  sleep 0.1
done

while read -r command; do
  case "$command" in
  stop-avahi)
    kill "$avahi_pid" 2>/dev/null || true
    wait "$avahi_pid" 2>/dev/null || true
    echo '{"event":"avahiStopped"}'
    ;;
  esac
done
