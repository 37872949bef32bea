#!/usr/bin/env bash
# Installs the Debian packages that are missing for a purpose. For arm64 it installs arm64-tools, and unpacks
# the libraries in build/arm64-root.
# Usage: install_packages.sh run|test|asan|arm64|arm64-tools|bench|package
set -euo pipefail

libraries=(libasio-dev libabsl-dev libexpat1-dev libssl-dev libsystemd-dev libcli11-dev nlohmann-json3-dev)
packages=(g++ cmake ninja-build "${libraries[@]}")
tests=(libgtest-dev openssl dbus-daemon dbus-system-bus-common libglib2.0-bin modemmanager mypy ofono pkgconf
       polkitd python3 systemd)
case "$1" in
  run) ;;
  test) packages+=("${tests[@]}") ;;
  asan) packages+=("${tests[@]}" clang-14 libclang-rt-14-dev llvm-14) ;;
  arm64)
    "$0" arm64-tools
    exec "$(dirname "$0")/make_arm64_root.sh" "${libraries[@]}" libgtest-dev
    ;;
  arm64-tools) packages=(g++-aarch64-linux-gnu qemu-user-static mmdebstrap cmake ninja-build "${tests[@]}") ;;
  package) packages+=(build-essential debhelper debootstrap dh-python iproute2 lintian procps python3) ;;
  bench) packages+=(libgtest-dev libspdlog-dev libsqlite3-dev liblmdb-dev rapidjson-dev libmsgpack-cxx-dev
                    libxml2-dev dbus-daemon python3) ;;
  *) echo "usage: $0 run|test|asan|arm64|arm64-tools|bench|package" >&2; exit 2 ;;
esac

missing=()
for package in "${packages[@]}"; do
  if [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" != installed ]; then
    missing+=("$package")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "these packages are missing, and only root or sudo can install them: ${missing[*]}" >&2
    exit 1
  fi
  as_root=(sudo)
fi

log=$(mktemp)
trap 'rm -f "$log"' EXIT
apt_get() {
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q "$@" >"$log" 2>&1 && return
  cat "$log" >&2
  echo "could not install ${missing[*]}" >&2
  exit 1
}
# A machine that gets these for the tests must not run them as services, now or after a reboot.
mask_service() {
  local unit=/etc/systemd/system/$1.service
  if [ ! -e "$unit" ]; then
    "${as_root[@]}" mkdir -p "${unit%/*}"
    "${as_root[@]}" ln -sf /dev/null "$unit"
    echo "the service $1 is masked; 'systemctl unmask $1' gives it back"
  fi
}

echo "installing ${missing[*]}"
apt_get update
for package in "${missing[@]}"; do
  case $package in
    modemmanager) mask_service ModemManager ;;
    ofono) mask_service ofono; mask_service dundee ;;
  esac
done
apt_get install -y --no-install-recommends "${missing[@]}"
