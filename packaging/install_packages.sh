#!/usr/bin/env bash
# Installs the Debian packages that are missing for a purpose. Usage: install_packages.sh run|test|asan|bench
set -euo pipefail

packages=(g++ cmake ninja-build libasio-dev libabsl-dev libexpat1-dev libssl-dev libsystemd-dev libcli11-dev
          nlohmann-json3-dev)
case "$1" in
  run) ;;
  test) packages+=(libgtest-dev openssl) ;;
  asan) packages+=(libgtest-dev openssl clang-14 libclang-rt-14-dev llvm-14) ;;
  bench) packages+=(libgtest-dev libspdlog-dev libsqlite3-dev liblmdb-dev rapidjson-dev libmsgpack-cxx-dev libxml2-dev
                    dbus-daemon python3) ;;
  *) echo "usage: $0 run|test|asan|bench" >&2; exit 2 ;;
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
echo "installing ${missing[*]}"
apt_get update
apt_get install -y --no-install-recommends "${missing[@]}"
