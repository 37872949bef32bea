#!/usr/bin/env bash
# Unpacks Debian packages for arm64, and those that they depend on, in build/arm64-root. Nothing is installed. A
# second call with the same packages does nothing. Usage: make_arm64_root.sh PACKAGE...
set -euo pipefail
cd "$(dirname "$0")/.."

root=build/arm64-root
[ "$(cat $root/packages 2>/dev/null)" = "$*" ] && exit 0

echo "unpacking $* for arm64"
rm -rf $root
mkdir -p build
new=$(mktemp -d build/arm64-root.XXXXXX)
trap 'rm -rf "$new"' EXIT
. /etc/os-release
if ! mmdebstrap --mode=chrootless --variant=extract --architectures=arm64 --include="$*" "$VERSION_CODENAME" \
    "$new/root" 2>"$new/log"; then
  cat "$new/log" >&2
  exit 1
fi

# Emulated programs find a path below this root, where it exists, instead of the machine's: /tmp, /etc and other
# folders must not exist here.
mkdir "$new/kept"
mv "$new"/root/{lib,usr} "$new/kept"
# Absolute links would lead out of the root.
find "$new/kept" -lname '/*' -printf '%P %l\n' | while read -r link target; do
  ln -sfrT "$new/kept$target" "$new/kept/$link"
done
echo "$*" >"$new/kept/packages"
mv "$new/kept" $root
