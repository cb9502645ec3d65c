#!/usr/bin/env bash
# Installs the packages the build, the tests and the benchmarks need, when any
# is missing. Safe to run again; does nothing when all are present.
set -euo pipefail
packages=(cmake g++ make pkg-config libgtest-dev libgmock-dev libbenchmark-dev
          clang libclang-rt-14-dev zlib1g-dev libssl-dev python3 coreutils
          # real peers the interop tests start: SOCKS5, HTTP proxy, UPnP gateway
          iproute2 dante-server squid apache2-utils openssl
          miniupnpd-nftables nftables libminiupnpc-dev
          # benchmark-only peers, never linked into the library
          libevent-dev iperf3)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
echo "installing: ${missing[*]}"
sudo_cmd=""
[ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo_cmd apt-get -o DPkg::Lock::Timeout=300 update
$sudo_cmd apt-get -o DPkg::Lock::Timeout=300 install -y --no-install-recommends "${missing[@]}"
