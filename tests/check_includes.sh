#!/usr/bin/env bash
# Holds every #include of ours against the table of who may include whom. Usage: check_includes.sh SOURCE_DIR
set -euo pipefail
cd "$1"

# The folders that the files of a folder may include, besides their own.
declare -A allowed=(
  [plist]=""
  [wire]="plist"
  [platform]="plist"
  [platform/process]="platform plist"
  [platform/keys]="platform plist"
  [platform/log]="platform plist wire"
  [platform/ipc]="platform platform/process plist wire"
  [platform/linux]="platform platform/process plist"
  [platform/simulated]="platform platform/process plist"
  [platform/system]="platform platform/ipc platform/log platform/process plist wire"
  [daemon/log]="platform plist"
  [state]="daemon/log platform plist"
  [device]="daemon/log platform plist state"
  [support]="daemon/log platform plist state"
  [daemon]="daemon/log device platform plist state support wire"
  [client]="plist wire"
  [bus]="client plist wire"
  [tools]="client plist wire"
)
# The one file that names the folders below platform/.
main=daemon/main.cpp

faults=0
checked=0
while IFS=: read -r file line include; do
  target=$(sed -E 's/.*"([^"]+)".*/\1/' <<<"$include")
  from=$(dirname "$file")
  to=$(dirname "$target")
  may=${allowed[$from]-}
  if [ "$file" = "$main" ]; then may+=" platform/linux platform/process platform/simulated platform/system"; fi
  checked=$((checked + 1))
  if [ ! -e "$target" ]; then
    echo "$file:$line: includes $target, which is no path from the top of the tree"
    faults=$((faults + 1))
  elif [ "$from" != "$to" ] && [[ " $may " != *" $to "* ]]; then
    echo "$file:$line: $from may not include $to"
    faults=$((faults + 1))
  fi
done < <(grep -rnE '^[[:space:]]*#[[:space:]]*include[[:space:]]*"' --include='*.h' --include='*.cpp' \
           plist wire platform daemon state device support client bus tools 2>/dev/null | grep -v '_test\.cpp:')

if [ "$checked" -eq 0 ]; then
  echo "no includes found: this check looked in the wrong place"
  exit 1
fi
echo "$checked includes checked, $faults faults"
[ "$faults" -eq 0 ]
