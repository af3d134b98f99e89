#!/usr/bin/env bash
# Installs the Debian packages that vexil needs to build, test and run.
# Does nothing when everything is present; needs root only when something is missing.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git dpkg-dev clang clang-format
  liblua5.2-dev lua5.2 lua-busted
  libssl-dev openssl
  libp11-kit-dev p11-kit p11-kit-modules softhsm2 opensc
  libwxgtk3.2-dev
  libsqlite3-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libpcap-dev
  libnetfilter-log-dev libmnl-dev libnftables-dev nftables iproute2
  nmap ulogd2 python3 curl netcat-openbsd
  tcpdump tshark wireshark-common coreutils
  gettext
  clang libclang-rt-14-dev
  lua-posix lua-dkjson
  rsyslog
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done

if [[ ${#missing[@]} -eq 0 ]]; then
  exit 0
fi

if [[ $(id -u) -ne 0 ]]; then
  echo "install-deps: missing packages: ${missing[*]}" >&2
  echo "install-deps: run this script as root (or install them with apt-get) and try again" >&2
  exit 1
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -q
apt-get install -y -q --no-install-recommends "${missing[@]}"
