#!/usr/bin/env bash
# Holds every #include of ours against the table of who may include whom. Usage: check_includes.sh SOURCE_DIR
set -euo pipefail
cd "$1"

# The folders that the files of a folder may include, besides their own.
allowed() {
  case "$1" in
    plist) echo "" ;;
    wire) echo "plist" ;;
    platform) echo "plist" ;;
    platform/common) echo "platform plist wire" ;;
    platform/linux | platform/simulated) echo "platform platform/common plist" ;;
    daemon/log) echo "platform plist" ;;
    state) echo "plist platform daemon/log" ;;
    device | support) echo "plist platform daemon/log state" ;;
    daemon) echo "plist wire platform daemon/log state device support" ;;
    daemon/main) echo "plist wire platform platform/common platform/linux platform/simulated daemon daemon/log state device support" ;;
    client) echo "plist wire" ;;
    tools) echo "client plist wire" ;;
    *) echo "unknown" ;;
  esac
}

# The room of a file: its folder, but for the two that stand apart from theirs.
room() {
  case "$1" in
    daemon/log.h | daemon/log.cpp) echo daemon/log ;;
    daemon/main.cpp) echo daemon/main ;;
    *) dirname "$1" ;;
  esac
}

faults=0
checked=0
while IFS=: read -r file line include; do
  target=$(sed -E 's/.*"([^"]+)".*/\1/' <<<"$include")
  from=$(room "$file")
  to=$(room "$target")
  checked=$((checked + 1))
  if [ ! -e "$target" ]; then
    echo "$file:$line: includes $target, which is no path from the top of the tree"
    faults=$((faults + 1))
  elif [ "$from" != "$to" ] && [[ " $(allowed "$from") " != *" $to "* ]]; then
    echo "$file:$line: $from may not include $to"
    faults=$((faults + 1))
  fi
done < <(grep -rnE '^[[:space:]]*#[[:space:]]*include[[:space:]]*"' --include='*.h' --include='*.cpp' \
           plist wire platform daemon state device support client tools 2>/dev/null | grep -v '_test\.cpp:')

if [ "$checked" -eq 0 ]; then
  echo "no includes found: this check looked in the wrong place"
  exit 1
fi
echo "$checked includes checked, $faults faults"
[ "$faults" -eq 0 ]
