#!/bin/bash
# Installs the Debian packages needed to build dravnik and run its tests.
# Meant for a Debian 12 machine where we are root; does nothing (and does not
# touch apt at all) when every package is already installed.
set -euo pipefail

packages=(
  build-essential g++ cmake ninja-build pkg-config
  libboost-program-options-dev libsqlite3-dev libssl-dev libidn-dev
  libgtest-dev googletest
  clang libclang-rt-14-dev
  python3 python3-pytest python3-cryptography
  bubblewrap psmisc sed strace
  man-db groff-base dpkg-dev file
  debhelper lintian fakeroot systemd python3-prometheus-client
  courier-base dovecot-core dovecot-imapd dovecot-pop3d dovecot-auth-lua
  libcrypt-dev
)

missing=()
for pkg in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${db:Status-Status}' "$pkg" 2>/dev/null || true)
  if [ "$status" != installed ]; then
    missing+=("$pkg")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "install-deps: missing packages: ${missing[*]}" >&2
  echo "install-deps: run this script as root to install them" >&2
  exit 1
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive

# The mail servers are installed only for their delivery agents; their
# maintainer scripts must not start daemons on a build machine.  A policy
# file that forbids service starts is put in place for the duration of the
# install, unless the machine already has one.
policy=/usr/sbin/policy-rc.d
own_policy=0
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' >"$policy"
  chmod 0755 "$policy"
  own_policy=1
fi
cleanup() {
  if [ "$own_policy" -eq 1 ]; then
    rm -f "$policy"
  fi
}
trap cleanup EXIT

apt-get update -q
apt-get install -y -q --no-install-recommends \
  -o Dpkg::Options::=--force-confdef -o Dpkg::Options::=--force-confold \
  "${missing[@]}"
