#!/usr/bin/env bash
# Installs the Debian 12 packages that a job needs:
#   tools/deps.sh build   building sentrel and running it (tools/run-example.sh)
#   tools/deps.sh test    that, and what the tests, benchmarks, fuzzers and
#                         the Debian package need (tools/test.sh)
set -euo pipefail
build=(g++ cmake make rapidjson-dev
       # the measured boot evidence module
       libssl-dev libtss2-dev pkg-config
       # remote attestation over gRPC
       libgrpc++-dev libprotobuf-dev protobuf-compiler protobuf-compiler-grpc)
test=(clang libgtest-dev libgmock-dev libbenchmark-dev libclang-rt-14-dev valgrind python3
      # the Debian package, its checks, the manual page and the units
      debhelper dpkg-dev fakeroot lintian man-db groff-base systemd git
      # the metrics tests
      prometheus prometheus-node-exporter curl
      # a software TPM for the measured boot evidence and attestation tests,
      # and certificates for the attestation service's TLS
      swtpm swtpm-tools tpm2-tools openssl)
case "${1:-}" in
  build) packages=("${build[@]}") ;;
  test) packages=("${build[@]}" "${test[@]}") ;;
  *) echo "usage: tools/deps.sh build|test" >&2; exit 2 ;;
esac
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
