#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs every Debian package the build, the tests and the demo need. Safe to run again.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git ca-certificates
  libmicrohttpd-dev
  libssl-dev openssl
  libavahi-client-dev libavahi-core-dev avahi-daemon avahi-utils dbus
  libspdlog-dev libfmt-dev
  nlohmann-json3-dev
  libplist-dev libplist-utils
  libglib2.0-dev libglib2.0-bin shared-mime-info
  libsqlite3-dev dosfstools
  uuid-dev
  libcli11-dev
  qt6-base-dev doxygen dpkg-dev help2man
  libgtest-dev libgmock-dev libbenchmark-dev
  iproute2 attr jq
  clang-format clang libclang-rt-14-dev
)

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }

# Whichever libcurl -dev flavour is installed stays: they conflict, and swapping one would remove what
# other software on the machine builds against. With none, GnuTLS: libmicrohttpd loads it anyway and no
# transfer here uses TLS, so this spares every process the OpenSSL flavour's libssl.
if ! installed libcurl4-openssl-dev && ! installed libcurl4-nss-dev; then
  packages+=(libcurl4-gnutls-dev)
fi

missing=()
for p in "${packages[@]}"; do
  installed "$p" || missing+=("$p")
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all ${#packages[@]} packages present"
  exit 0
fi

sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
echo "setup: installing ${missing[*]}"
# The packages must not start their daemons (the system mDNS daemon would announce this machine on its
# real interfaces): a policy that refuses every service start while apt runs.
policy=/usr/sbin/policy-rc.d
own_policy=0
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' | "${sudo_cmd[@]}" tee "$policy" >/dev/null
  "${sudo_cmd[@]}" chmod +x "$policy"
  own_policy=1
fi
cleanup() { [ "$own_policy" -eq 1 ] && "${sudo_cmd[@]}" rm -f "$policy"; return 0; }
trap cleanup EXIT
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
# A system mDNS daemon the user already ran is theirs (printers, ".local" names): it is left alone. One
# installed here stays off, also at the next boot; the tests and the demo start private ones.
if [[ " ${missing[*]} " == *" avahi-daemon "* ]] && command -v systemctl >/dev/null 2>&1; then
  "${sudo_cmd[@]}" systemctl disable avahi-daemon.socket avahi-daemon.service >/dev/null 2>&1 || true
fi
echo "setup: done"
