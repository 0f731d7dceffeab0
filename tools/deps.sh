#!/usr/bin/env bash
# Installs the Debian 12 packages that building and testing need.
set -euo pipefail
packages=(g++ clang cmake make rapidjson-dev libgtest-dev libgmock-dev libbenchmark-dev
          libclang-rt-14-dev valgrind python3)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
sudo=""
[ "$(id -u)" -eq 0 ] || sudo=sudo
$sudo apt-get update
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y "${missing[@]}"
