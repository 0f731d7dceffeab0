#!/usr/bin/env bash
# Installs the Debian 12 packages that building and testing need.
set -euo pipefail
packages=(g++ clang cmake make rapidjson-dev libgtest-dev libgmock-dev libbenchmark-dev
          libclang-rt-14-dev valgrind python3
          # the measured boot evidence, and tpm2_eventlog to check its replay against
          libssl-dev libtss2-dev pkg-config tpm2-tools
          # the Debian package, its checks, the manual page and the units
          debhelper dpkg-dev fakeroot lintian man-db groff-base systemd git
          # the metrics tests
          prometheus prometheus-node-exporter curl)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
sudo=""
[ "$(id -u)" -eq 0 ] || sudo=sudo
# Another build may hold the package manager's lock: wait for it.
apt_get() {
  for attempt in 1 2 3 4 5 6 7 8 9 10; do
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=120 "$@" && return 0
    echo "apt-get $1 failed (attempt $attempt), retrying" >&2
    sleep 15
  done
  return 1
}
apt_get update
apt_get install -y "${missing[@]}"
