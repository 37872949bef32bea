#!/usr/bin/env bash
# Drives corvanectl against a daemon on a simulated phone. Usage: corvanectl_test.sh BIN_DIR
set -uo pipefail
bin=$1
source=$(realpath "$(dirname "$0")/..")
work=$(realpath "$(mktemp -d)")
daemon='' watcher='' sleeper=''
failures=0
trap 'kill $daemon $watcher $sleeper 2>/dev/null; rm -rf "$work"' EXIT

fail() {
  printf 'FAILED: %s: %s\n' "$step" "$1" >&2
  failures=$((failures + 1))
}

# expect STATUS OUTPUT ERRORS COMMAND...: how the command ends, with shell patterns for the whole of what it writes
# to standard output and standard error.
expect() {
  local status=0 output errors
  output=$("${@:4}" 2>"$work/errors") || status=$?
  errors=$(cat "$work/errors")
  if [ $status -ne "$1" ]; then fail "'${*:4}' ended with status $status, not $1: $output$errors"; fi
  if [[ $output != $2 ]]; then fail "'${*:4}' wrote '$output', which is not '$2'"; fi
  if [[ $errors != $3 ]]; then fail "'${*:4}' complained '$errors', which is not '$3'"; fi
}

# Waits for up to a minute; the test ends where that was in vain.
eventually() {
  local deadline=$((SECONDS + 60))
  until "$@"; do
    if [ $SECONDS -gt $deadline ]; then fail "waited in vain for '$*'" && exit 1; fi
    sleep 0.1
  done
}

corvanectl() { "$bin/corvanectl" "$@"; }
without_input() { "$@" <&-; }
without_output() { "$@" >&-; }
without_errors() { "$@" 2>&-; }

start_daemon() {
  CORVANE_PLATFORM=$1 "$bin/corvaned" 2>"$work/daemon_errors" &
  daemon=$!
  eventually [ -S "$CORVANE_ROOT/run/corvaned/com.norvane.corvaned" ]
}

end_daemon() {
  kill "$daemon"
  wait "$daemon" || fail "the daemon ended with status $?: $(cat "$work/daemon_errors")"
  daemon=''
}

export CORVANE_ROOT=$work/root CORVANE_PROFILE=$work/profile.plist
mkdir -p "$CORVANE_ROOT"/private/var/mobile/Library/{Logs,Preferences} "$CORVANE_ROOT"/{run/corvaned,var}
ln -s ../private/var/mobile "$CORVANE_ROOT/var/mobile"
cp "$source/profiles/phone.plist" "$CORVANE_PROFILE"
images=$source/profiles/images.plist
stored=$CORVANE_ROOT/private/var/mobile/Library/cvd/regulatory_images/regulatory_images.plist

step='wrong usage'
expect 0 'corvanectl [0-9]*.[0-9]*.[0-9]*' '' corvanectl --version
expect 2 '' 'corvanectl: A subcommand is required' corvanectl
expect 2 '' 'corvanectl: unknown argument: --bogus' corvanectl --bogus
expect 2 '' 'corvanectl: unknown argument: bogus' corvanectl bogus
expect 2 '' 'corvanectl: unknown argument: bogus' corvanectl profile bogus
expect 2 '' 'corvanectl: *--json excludes --xml' corvanectl show --json --xml "$images"
expect 2 '' 'corvanectl: --store: must not be empty' corvanectl images --store ''
expect 2 '' 'corvanectl: --save: must not be empty' corvanectl images --save ''
expect 2 '' 'corvanectl: --sign: must not be empty' corvanectl entitlements --sign '' "$images"
expect 2 '' 'corvanectl: --profile: must not be empty' corvanectl profile --profile '' unset Key
expect 2 '' 'corvanectl: 12a: not a process id' corvanectl entitlements 12a

step='no daemon'
expect 3 '' "corvanectl: no daemon: $CORVANE_ROOT/run/*" corvanectl images
expect 3 '' 'corvanectl: no daemon: *.admin: No such file or directory' corvanectl images --store "$images"
expect 3 '' 'corvanectl: no daemon: *' corvanectl notifications

step='files that cannot be shown'
expect 2 '' 'corvanectl: /dev/null: no element found at byte 0' corvanectl show /dev/null
expect 2 '' 'corvanectl: /dev/stdin: File too large' corvanectl show /dev/stdin < <(head -c 200M /dev/zero)
truncate -s 5G "$work/sparse"
expect 2 '' 'corvanectl: *: File too large' corvanectl show "$work/sparse"

step='text that a terminal would act on'
printf '<plist><dict><key>k\xc2\x9b</key><string>\xe2\x80\xaez"\\</string></dict></plist>' >"$work/hostile.plist"
expect 0 $'{\n  "k\\\\u009b": "\\\\u202ez\\\\"\\\\\\\\"\n}' '' corvanectl show "$work/hostile.plist"
expect 2 '' 'corvanectl: a\\nb\\u001b\[2J\\u202e\\x9b: No such file or directory' \
  corvanectl show $'a\nb\e[2J\xe2\x80\xae\x9b'

step='JSON that is set is the JSON that is shown'
cp "$source/plist/testdata/ark.bin.plist" "$work/binary.plist"
echo '<plist><dict/></plist>' >"$work/xml.plist"
comes_back() {
  expect 0 '' '' corvanectl profile --profile "$1" set --json Value "$2"
  local shown
  shown=$(corvanectl show --json "$1" | tr -d ' \n')
  if [[ $shown != *"\"Value\":$2"[,}]* ]]; then fail "$2 came back as $shown"; fi
}
for value in '"text"' '"\u001b"' '""' 0 -9223372036854775808 18446744073709551615 2.5 -0.0 1e+300 true false \
  '[]' '{}' '[1,[2,{"k":3}]]' '{"$data":""}' '{"$data":"AAEC/w=="}' '{"$set":[{"$set":[]}]}' \
  '{"$date":"2026-11-21T03:04:05Z"}' '{"$date":0.5}' '{"$date":-1e+300}' '{"$real":"nan"}' '{"$real":"-inf"}' \
  '{"$dict":{"$data":"AA=="}}' '{"$dict":{"$dict":{"$dict":{"$x":1}}}}' '{"$a":1,"$b":2}'; do
  comes_back "$work/binary.plist" "$value"
done
comes_back "$work/xml.plist" '[{"$date":0.5},{"$data":"AA=="},{"$set":[1]},{"$dict":{"$real":"inf"}}]'
expect 0 $'<?xml*<date>2001-01-01T00:00:00.5Z</date>*' '' corvanectl show --xml "$work/xml.plist"

step='JSON that is no value'
cp "$work/xml.plist" "$work/before.plist"
refuses() { expect 2 '' "corvanectl: $2" corvanectl profile --profile "$work/xml.plist" set --json Value "$1"; }
refuses '{"a": nul}' 'not JSON: fault at byte 10'
refuses '1e999' 'the JSON has a number that is too large'
refuses '[null]' 'a property list has no null'
refuses '{"$data": 1}' 'not a value: {"$data": ...}; a dictionary like that is written {"$dict": {...}}'
refuses '{"$data": "?"}' 'not Base64: "\?"'
refuses '"\u001b"' '*/xml.plist: *'
refuses "$(printf '[%.0s' $(seq 129))$(printf ']%.0s' $(seq 129))" '*/xml.plist: nesting deeper than 128'
refuses "$(printf '[%.0s' $(seq 60000))" 'the JSON nests too deeply'
expect 0 '' '' cmp "$work/before.plist" "$work/xml.plist"

step='editing a profile'
ln -s xml.plist "$work/link.plist"
chmod 640 "$work/xml.plist"
export CORVANE_PROFILE=$work/link.plist
expect 0 '' '' corvanectl profile set Made.On.TheWay yes
expect 0 $'{\n  "Made": {\n    "On": {\n      "TheWay": "yes"\n*' '' corvanectl show "$work/xml.plist"
expect 2 '' '*: "Value" is not a dictionary' corvanectl profile set Value.Key text
expect 0 '' '' corvanectl profile unset Value
expect 0 '' '' corvanectl profile unset Made.On
expect 0 $'{\n  "Made": {}\n}' '' corvanectl show "$work/xml.plist"
expect 0 '640 regular file' '' stat -c '%a %F' "$work/xml.plist"
expect 0 '*symbolic link' '' stat -c %F "$work/link.plist"
export CORVANE_PROFILE=$work/profile.plist

step='the regulatory images'
expect 0 '' '' corvanectl profile set --json Entitlements '{"4711": {"dial": true}}'
start_daemon simulated
expect 1 '' 'corvanectl: no regulatory images are stored' corvanectl images
expect 0 '' '' corvanectl images --store "$images"
expect 0 $'{\n  "ProductVersion": "9.1"\n  "RegulatoryImages": {\n*"Image": <139 bytes: *' '' corvanectl images
expect 0 $'{\n "ProductVersion": "9.1",\n*"$data": "iVBOR*' '' corvanectl images --json
expect 0 '<?xml *<key>ProductVersion</key>*' '' corvanectl images --xml
mkdir "$work/saved"
expect 0 $'*/RegulatoryImages-Images-0-Image.png\n*-1-Image.png' '' corvanectl images --save "$work/saved"

step='a request that the daemon cannot read'
deep=$(printf '[%.0s' $(seq 120))$(printf ']%.0s' $(seq 120))
expect 0 '' '' corvanectl profile --profile "$work/xml.plist" set --json Deep "$deep"
expect 1 '' 'corvanectl: the daemon answered error 1: Unexpeceted parameter' \
  corvanectl images --store "$work/xml.plist"

step='saving below hostile keys'
x300=$(printf 'x%.0s' $(seq 300)) x183=$(printf 'x%.0s' $(seq 183))
png='{"$data":"iVBORw=="}' other='{"$data":"AA=="}'
expect 0 '' '' corvanectl profile --profile "$stored" set --json RegulatoryImages "{
  \"../../up\":$png, \"..\":$other, \"a/b\":$other, \"a.b\":$other, \"a_b-2\":$other, \"line\nfeed\":$png,
  \"\":$other, \"$x300\":$other, \"$x300 and more\":$other, \"é\":[$png, {\"/\":$png}]}"
expect 0 '' '' corvanectl profile --profile "$stored" set --json '' "$other"
mkdir -p "$work/saved/deep/deeper"
expect 0 '*' '' corvanectl images --save "$work/saved/deep/deeper"
expect 0 "RegulatoryImages-.bin
RegulatoryImages-__-0.png
RegulatoryImages-__-1-_.png
RegulatoryImages-__.bin
RegulatoryImages-______up.png
RegulatoryImages-a_b-2-2.bin
RegulatoryImages-a_b-2.bin
RegulatoryImages-a_b.bin
RegulatoryImages-line_feed.png
RegulatoryImages-$x183-2.bin
RegulatoryImages-$x183.bin
_.bin" '' env LC_ALL=C ls -A "$work/saved/deep/deeper"
expect 1 '' 'corvanectl: could not write *' corvanectl images --save /proc/self

step='entitlements'
expect 0 $'{\n  "dial": true\n}' '' corvanectl entitlements 4711
expect 1 '' 'corvanectl: process 1 has no entitlements' corvanectl entitlements 1

step='closed descriptors'
expect 1 '' 'corvanectl: standard output: Bad file descriptor' without_output corvanectl images
expect 1 '' 'corvanectl: standard output: Bad file descriptor' without_output corvanectl entitlements 4711
expect 1 '' '' without_input without_output without_errors corvanectl images
expect 0 '' '' without_input without_output without_errors corvanectl images --store "$images"
expect 0 '*"ProductVersion"*' '' without_input without_errors corvanectl images

step='notifications'
"$bin/corvanectl" notifications >"$work/heard" 2>"$work/watcher_errors" &
watcher=$!
insert_sim_and_hear() {
  corvanectl profile set Telephony.SIMIdentity "$RANDOM"
  sleep 0.2
  grep -qxE '[0-9-]{10} [0-9:]{8}\.[0-9]{3} com\.norvane\.mobile\.keelhold\.phone_number_changed' "$work/heard"
}
eventually insert_sim_and_hear
end_daemon
wait "$watcher"
[ $? -eq 1 ] || fail 'the end of the daemon is not status 1'
watcher=''
expect 0 'corvanectl: the daemon closed the connection' '' cat "$work/watcher_errors"

step='a device without a version'
start_daemon linux
expect 1 '' 'corvanectl: the daemon answered error 2: *ProductVersion*/etc/corvaned/properties.plist*os-release' \
  corvanectl images --store "$images"
end_daemon

step='an executable that is signed'
cp "$(command -v sleep)" "$work/sleeper"
echo '<plist><dict><key>dial</key><true/></dict></plist>' >"$work/dialer.plist"
if refusal=$(corvanectl entitlements --sign "$work/sleeper" "$work/dialer.plist" 2>&1); then
  start_daemon linux
  "$work/sleeper" 60 &
  sleeper=$!
  has_entitlements() { corvanectl entitlements "$sleeper" >"$work/seen" 2>&1; }
  eventually has_entitlements
  expect 0 $'{\n  "dial": true\n}' '' cat "$work/seen"
  end_daemon
elif [[ $refusal =~ needs\ root|belongs\ to\ root|does\ not\ keep ]]; then
  echo "what a signed executable may do is not tested here: $refusal"
else
  fail "signing: $refusal"
fi

[ $failures -eq 0 ] || exit 1
echo 'corvanectl does what it should'
