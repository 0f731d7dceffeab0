#!/usr/bin/env bash
# Installs the Debian 12 packages that building and testing need.
set -euo pipefail
packages=(g++ clang cmake make rapidjson-dev libgtest-dev libgmock-dev libbenchmark-dev
          libclang-rt-14-dev valgrind python3 prometheus prometheus-node-exporter curl)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
sudo=""
[ "$(id -u)" -eq 0 ] || sudo=sudo
# Another apt run may hold the lock for a while: wait for it, a few times.
for attempt in 1 2 3 4 5 6; do
  $sudo apt-get -o DPkg::Lock::Timeout=120 update &&
    DEBIAN_FRONTEND=noninteractive $sudo apt-get -o DPkg::Lock::Timeout=120 install -y "${missing[@]}" && exit 0
  echo "apt-get failed (attempt $attempt), retrying" >&2
  sleep 20
done
exit 1
