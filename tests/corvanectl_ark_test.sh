#!/usr/bin/env bash
# Holds what corvanectl does to the data ark against the ark's file. Usage: corvanectl_ark_test.sh BIN_DIR
source "$(dirname "$0")/support/corvanectl.sh"
ark_file=$CORVANE_ROOT/private/var/mobile/Library/cvd/data_ark.plist
ark() { "$bin/corvanectl" ark "$@"; }

# The entries of an array of entries on standard input that the ark stores, as one dictionary.
stored_entries='
import json, sys
entries = json.load(sys.stdin)
stored = {e["Key"]: e["Value"] for e in entries if not {1, 7} & set(e["Attributes"])}
print(json.dumps(stored, sort_keys=True))'
in_order='import json, sys; print(json.dumps(json.load(sys.stdin), sort_keys=True))'

file_has_the_ark() {
  local listed on_disk
  listed=$(ark list --json | python3 -c "$stored_entries") || fail 'the list is no JSON'
  on_disk=$(corvanectl show --json "$ark_file" | python3 -c "$in_order") || fail 'the file cannot be shown'
  if [ "$listed" != "$on_disk" ]; then fail "the file has '${on_disk:0:300}', and the list '${listed:0:300}'"; fi
}

# make_dump FILE COUNT VALUE [ENTRY]: a dump of COUNT entries in the domain "many", and of one more that is given as XML.
make_dump() {
  {
    echo '<plist><dict><key>Entries</key><array>'
    printf "<dict><key>Key</key><string>many-%05d</string><key>Value</key><integer>$3</integer></dict>\n" $(seq 0 $(($2 - 1)))
    echo "${4:-}</array></dict></plist>"
  } >"$1"
}

step='no daemon'
expect 3 '' 'corvanectl: no daemon: *.admin: *' corvanectl ark list
start_daemon simulated

step='a user who may not ask'
unprivileged() {
  if [ "$EUID" -ne 0 ]; then "$@"; else setpriv --bounding-set=-dac_override,-dac_read_search "$@"; fi
}
admin_socket=$CORVANE_ROOT/run/corvaned/com.norvane.corvaned.admin
chmod 0 "$admin_socket"
expect 4 '' 'corvanectl: not permitted: *.admin: Permission denied' unprivileged "$bin/corvanectl" ark list
chmod 600 "$admin_socket"

step='one value'
expect 5 '' 'corvanectl: there is no entry -Key' ark get Key
expect 0 'set -Key; it is new' '' ark set Key text
expect 0 'set -Key; it was "text"' '' ark set Key $'line\nfeed'
expect 0 '"line\\nfeed"' '' ark get Key
file_has_the_ark
comes_back() {
  expect 0 'set d-Key; it *' '' ark set --domain d --json Key "$1"
  local shown
  shown=$(ark get --domain d --json Key | tr -d ' \n')
  if [ "$shown" != "$1" ]; then fail "$1 came back as $shown"; fi
  file_has_the_ark
}
for value in '{"a":[1,{"$data":"AAEC"}]}' '{"$date":-0.0}' '{"$dict":{"$set":[]}}' 2.0 true; do
  comes_back "$value"
done
expect 0 'removed d-Key; it was true' '' ark remove --domain d Key
file_has_the_ark

step='attributes'
expect 0 'set the attributes of -Key until the daemon ends; they were none' '' ark attributes --set 5,0 Key
expect 0 $'"line\\\\nfeed"\nattributes: 0, 5 (change uncounted)' '' ark get Key
expect 0 'set the attributes of t- until the daemon ends; they were none' '' ark attributes --domain t --set 1
expect 0 'set t-Key; it is new' '' ark set --domain t Key 'in memory only'
expect 0 $'\\[\n 1\n]' '' ark attributes --domain t --json Key
file_has_the_ark
expect 0 '*they were 1 (not stored)' '' ark attributes --domain t Key --none
expect 0 '*they were 0, 5 (change uncounted)' '' ark attributes Key --none
expect 0 '*they were none; there is no such entry yet' '' ark attributes Missing --none
expect 2 '' 'corvanectl: KEY or --domain is required; *' ark attributes --none

step='keys that cannot be used'
expect 2 '' 'corvanectl: KEY: not UTF-8' ark set $'\xff' text
expect 2 '' 'corvanectl: KEY: must not be empty' ark watch ''
key_of_size() { printf 'k%.0s' $(seq "$1"); }
expect 2 '' '*have 1025 bytes together, and may have 1024' ark set "$(key_of_size 1024)" text

step='the list'
whole=$'KEY    ATTRIBUTES  VALUE\n-Key               "line\\\\nfeed"\nt-Key              "in memory only"'
expect 0 "$whole" '' ark list
expect 0 $'KEY *\nKey *"in memory only"' '' ark list --domain t

step='a list on a narrow terminal'
expect 0 '*' '' ark set --domain a-rather-long-domain Key '日本の適合マーク、日本の適合マーク'
columns=40
on_terminal() { script -qec "stty cols $columns; '$bin/corvanectl' $*" /dev/null ; }
widest() { python3 -c 'import sys, unicodedata
def width(line): return sum(2 if unicodedata.east_asian_width(c) == "W" else 1 for c in line.rstrip())
print(max(map(width, sys.stdin)))'; }
export TERM=xterm
expect 0 $'\e\\[1mKEY *' '' on_terminal ark list
expect 0 '40' '' eval "NO_COLOR=1 on_terminal ark list | widest"
expect 0 '*-K*' '' eval 'columns=1 on_terminal ark list'
expect 2 $'*: binary data does not go to a terminal\r' '' on_terminal ark dump -
expect 0 'removed *' '' ark remove --domain a-rather-long-domain Key

step='dump and restore'
make_dump "$work/many.plist" 2500 1
expect 0 'set from */many.plist: 2500; left alone, because the file does not have them: 2' '' \
  ark restore "$work/many.plist"
file_has_the_ark
expect 0 1 '' eval 'ark list | grep -c ^KEY'
expect 0 "wrote $work/dump; entries: 2502" '' ark dump "$work/dump"
expect 0 600 '' stat -c %a "$work/dump"
expect 0 '' '' eval "ark dump - | cmp - '$work/dump'"
before=$(ark list --json)
expect 0 '*' '' ark remove Key
expect 0 'set many-00000; it was 1' '' ark set --domain many 00000 other
expect 0 'set from */dump: 2500; left alone, because the file does not have them: 0' '' \
  ark restore --domain many "$work/dump"
expect 0 'set from -: 2502; *: 0' '' ark restore - <"$work/dump"
if [ "$(ark list --json)" != "$before" ]; then fail 'the ark is not what was dumped'; fi
file_has_the_ark

step='a dump with one bad entry changes nothing'
refuses_entry() {
  make_dump "$work/bad.plist" 1999 -1 "<dict><key>Key</key><string>$1</string><key>Value</key><true/>$3</dict>"
  expect 2 '' "corvanectl: */bad.plist: entry 1999: $2" ark restore "$work/bad.plist"
  if [ "$(ark list --json)" != "$before" ]; then fail 'a bad dump has changed the ark'; fi
}
refuses_entry 'no hyphen' 'no composed key' ''
refuses_entry "-$(key_of_size 1024)" 'a key of more than 1,024 bytes' ''
too_deep=$(printf '<array>%.0s' {1..118}; printf '</array>%.0s' {1..118})
refuses_entry '-Key' 'a value nested more than 117 deep' "<key>Value</key>$too_deep"
refuses_entry '-Key' 'attributes are different numbers from 0 to 8' \
  '<key>Attributes</key><array><integer>3</integer><integer>3</integer></array>'

step='a dump while the ark changes'
# Each restore sets the ark's first and last key together, and so they have the same value in every dump.
write_pairs() {
  local n
  for n in 1 2; do
    sed "s/N/$n/" <<'XML' >"$work/pair$n.plist"
<plist><dict><key>Entries</key><array>
  <dict><key>Key</key><string>-A</string><key>Value</key><integer>N</integer></dict>
  <dict><key>Key</key><string>z-Z</string><key>Value</key><integer>N</integer></dict>
</array></dict></plist>
XML
  done
  until [ -e "$work/enough" ]; do
    for n in 1 2; do ark restore "$work/pair$n.plist" >/dev/null || return 1; done
  done
}
expect 0 '*' '' ark set A 0
expect 0 '*' '' ark set --domain z Z 0
write_pairs &
writer=$!
dumped=0
for _ in {1..40}; do
  ark dump "$work/dump" >/dev/null 2>&1 || continue
  dumped=$((dumped + 1))
  values=$(corvanectl show --json "$work/dump" | grep -A 1 -E '"Key": "(-A|z-Z)"' | grep '"Value"')
  if [ "$(uniq -c <<<"$values" | awk '{print $1}')" != 2 ]; then fail "a dump has two moments in it: $values"; fi
done
touch "$work/enough"
wait $writer || fail 'a pair could not be set'
if [ $dumped -eq 0 ]; then fail 'no dump was made between two changes'; fi

step='watch'
wait_for_line() { eventually grep -qsF -- "$2" "$1"; }
ark watch --json --count 3 W >"$work/watched" &
counted=$!
ark watch --domain w Key --timeout 600 >"$work/watched_until_the_end" 2>&1 &
watcher=$!
wait_for_line "$work/watched" '{}'
wait_for_line "$work/watched_until_the_end" '(no value)'
expect 0 '*' '' ark set W one
wait_for_line "$work/watched" one
expect 0 '*' '' ark set --json W '{"$data":"AA=="}'
wait_for_line "$work/watched" AA==
expect 0 '*' '' ark set W two
wait $counted || fail 'three changes were not seen'
expect 0 $'{}\n*"Value":"one"}\n{"Attributes":\[],"Value":{"$data":"AA=="}}\n*"Value":"two"}' '' cat "$work/watched"
expect 1 '* "two"' 'corvanectl: in time came 0 of 1' ark watch W --count 1 --timeout 0.2

step='all places on the admin socket are taken for a second'
python3 - "$admin_socket" >"$work/held" <<'PYTHON' &
import socket, sys, time
held = [socket.socket(socket.AF_UNIX) for _ in range(8)]
for connection in held: connection.connect(sys.argv[1])
print("held", flush=True)
time.sleep(1)
PYTHON
wait_for_line "$work/held" held
expect 0 '"two"' '' ark get W

step='eight clients and a new SIM'
set_thirty() {
  local n
  for n in {1..30}; do ark set --domain "client$1" "Key$n" "$1 $n" >/dev/null || return 1; done
}
writers=()
for client in {1..8}; do
  set_thirty "$client" &
  writers+=($!)
done
for sim in 111 222 333; do expect 0 'set *' '' corvanectl profile set Telephony.SIMIdentity "$sim"; done
for writer in "${writers[@]}"; do wait "$writer" || fail 'a client could not set its keys'; done
has_sim() { [ "$(ark get IntegratedCircuitCardIdentity 2>/dev/null)" = '"333"' ]; }
eventually has_sim
for client in {1..8}; do
  expected=$(for n in {1..30}; do echo "Key$n \"$client $n\""; done | sort)
  found=$(ark list --domain "client$client" | sed 1d | tr -s ' ' | sort)
  if [ "$found" != "$expected" ]; then fail "client $client has '$found'"; fi
done
file_has_the_ark
end_daemon
wait $watcher
[ $? -eq 1 ] || fail 'the end of the daemon is not status 1 for a watch'
expect 0 '*: the daemon closed the connection' '' tail -n 1 "$work/watched_until_the_end"

step='the ark of the next daemon'
start_daemon simulated
file_has_the_ark

step='a removal of what became transient after it was stored'
expect 0 '*' '' ark attributes SIMGID1 --none
expect 0 'set -SIMGID1; *' '' ark set SIMGID1 text
file_has_the_ark
# This event changes nothing that is stored.
expect 0 'set *' '' corvanectl profile set Telephony.PhoneNumber 444
is_transient() { ark get SIMGID1 | grep -q '1 (not stored)'; }
eventually is_transient
expect 0 'removed -SIMGID1; *' '' ark remove SIMGID1
file_has_the_ark

step='a daemon that does not answer'
kill -STOP "$daemon"
expect 1 '' 'corvanectl: no answer within 5 s; it may still be done' ark set Stopped text
kill -CONT "$daemon"

[ $failures -eq 0 ] || exit 1
echo 'the ark is what corvanectl has made it'
