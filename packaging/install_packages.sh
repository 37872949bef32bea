#!/usr/bin/env bash
# Installs the Debian packages that are missing for a purpose. Usage: install_packages.sh run|test|asan|bench
set -euo pipefail

packages=(g++ cmake ninja-build libasio-dev libabsl-dev libexpat1-dev libssl-dev libcli11-dev nlohmann-json3-dev)
case "$1" in
  run) ;;
  test) packages+=(libgtest-dev openssl) ;;
  asan) packages+=(libgtest-dev openssl clang-14 libclang-rt-14-dev llvm-14) ;;
  bench) packages+=(libgtest-dev libspdlog-dev libsqlite3-dev liblmdb-dev rapidjson-dev libmsgpack-cxx-dev libxml2-dev
                    libsystemd-dev dbus-daemon python3) ;;
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
if [ "$(id -u)" -ne 0 ]; then as_root=(sudo); fi
echo "installing ${missing[*]}"
"${as_root[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
