#!/usr/bin/env bash
# Runs the commands that the documents show, against a daemon on a simulated phone: each must succeed, and what is
# shown below a "$" must be what it prints. The programs and the lines for the bus have tests of their own.
# Usage: docs_test.sh BIN_DIR
source "$(dirname "$0")/support/corvanectl.sh"
step='the documents'
state=$CORVANE_ROOT/private/var/mobile/Library/cvd

# What stands for something in a document, and what it is here.
translate() {
  sed -E -e "s|/backup/|$work/|g; s|/usr/bin/dialer|$work/dialer|g; s|/var/lib/node_exporter/|$work/|g" \
    -e "s| data_ark.plist| $state/data_ark.plist|; s|> *edited.plist|>$work/edited.plist|" \
    -e "s|dialer-entitlements.plist|$work/dialer.plist|; s|\\$\(pidof dialer\)|4711|; s| PID| 4711|" \
    -e "s|--sign FILE PLIST|--sign $work/dialer $work/dialer.plist|; s|--store PLIST|--store $images|" \
    -e "s|\[PROPERTY...\]|ProductType|; s|(ark dump) FILE|\1 $work/dump|; s|--page FILE|--page $work/page.html|" \
    -e "s|show FILE|show $CORVANE_PROFILE|; s|^(corvanectl notifications)|\1 --timeout 0.2|"
}

# The commands of a document, a line each. A line that ends in "&&" goes on in the next one.
commands() {
  grep -A1 '^    corvanectl ' "$1" | sed 's/^ *//; s/ *#.*//' | sed '/&&$/{N; s/\n/ /}' | grep '^corvanectl '
}

run_commands() {
  local command output
  while read -r command; do
    ran=$((ran + 1))
    if [[ $command == *--sign* ]] && ! may_sign; then continue; fi
    output=$(eval "$(translate <<<"$command")" 2>&1 </dev/null) || fail "$1: '$command' failed: $output"
  done < <(commands "$1")
}

# Extended attributes of this kind need a right that containers may lack.
may_sign() { "$bin/corvanectl" entitlements --sign "$work/dialer" "$work/dialer.plist" >/dev/null 2>&1; }

# Each command that is shown behind a "$", with what is shown below it.
run_sessions() {
  local line command='' shown=''
  while IFS= read -r line; do
    if [[ $line != '    '* || $line == '    $ '* ]]; then
      [ -z "$command" ] || compare "$1" "$command" "$shown"
      command='' shown=''
    fi
    if [[ $line == '    $ '* ]]; then
      command=${line#    \$ }
    elif [ -n "$command" ]; then
      shown+=${line#    }$'\n'
    fi
  done <"$1"
}

compare() {
  local printed
  ran=$((ran + 1))
  printed=$(eval "$2" 2>&1)
  [ "$printed" = "${3%$'\n'}" ] || fail "$1: '$2' printed '$printed'"
}

images=$source/profiles/images.plist
bundle="$CORVANE_ROOT/private/var/mobile/Library/Carrier Bundle.bundle"
mkdir "$bundle"
echo '<plist><dict><key>CarrierName</key><string>Example</string></dict></plist>' >"$bundle/Info.plist"
echo '<plist><dict><key>dial</key><true/></dict></plist>' >"$work/dialer.plist"
cp /bin/true "$work/dialer"
corvanectl profile set --json Entitlements '{"4711": {"dial": true}}' >/dev/null
start_daemon simulated

ran=0
run_sessions "$source/docs/json.md"
[ "$ran" -ge 3 ] || fail "only $ran commands were found in docs/json.md"
corvanectl images --store "$images" >/dev/null
for document in README.md docs/{data-ark,operating,simulated-device}.md; do
  before=$ran
  run_commands "$source/$document"
  [ "$ran" -gt "$before" ] || fail "no commands were found in $document"
done

end_daemon
[ $failures -eq 0 ] && echo "$ran commands do what the documents say"
