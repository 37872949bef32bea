#!/usr/bin/env bash
# Drives corvane-bus on a private bus, with a daemon on a simulated phone. Usage: bus_test.sh BIN_DIR
set -uo pipefail
bin=$1
source=$(realpath "$(dirname "$0")/..")
work=$(realpath "$(mktemp -d)")
bus='' daemon='' bridge='' monitor=''
trap 'kill -KILL $bus $daemon $bridge $monitor 2>/dev/null; wait; rm -rf "$work"' EXIT

export CORVANE_ROOT=$work/root CORVANE_PROFILE=$work/profile.plist CORVANE_PLATFORM=simulated
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/bus_socket
object=(com.norvane.corvaned /com/norvane/corvaned)
interface=com.norvane.corvaned1

fail() {
  printf 'FAILED: %s: %s\n' "$step" "$1" >&2
  tail -n 20 "$work"/{bridge,daemon,heard} >&2
  exit 1
}

eventually() {
  local deadline=$((SECONDS + 30))
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -le $deadline ] || fail "waited in vain for '$*'"
    sleep 0.05
  done
}

# expect STATUS PATTERN COMMAND...: with a pattern for all that the command writes.
expect() {
  local status=0 output
  output=$("${@:3}" 2>&1) || status=$?
  [[ $status -eq $1 && $output == $2 ]] || fail "'${*:3}' ended with status $status: '$output' is not '$2'"
}

start_daemon() {
  "$bin/corvaned" >>"$work/daemon" 2>&1 &
  daemon=$!
}

start_bridge() {
  "$bin/corvane-bus" 2>"$work/bridge" &
  bridge=$!
  eventually busctl status "${object[0]}"
}

hears() { grep -qF -- "$1" "$work/heard"; }
copy_images() { gdbus call --system -d "${object[0]}" -o "${object[1]}" -m $interface.CopyRegulatoryImages; }
refuses_images() { expect 1 "*:com.norvane.corvaned.Error.$1: $2" copy_images; }
store() { "$bin/corvanectl" images --store <(echo "<plist>$1</plist>") >/dev/null; }
interface_in() { sed -n "/<interface name=\"$interface\">/,/<\/interface>/p"; }
as_user() { setpriv --reuid "$1" --clear-groups "${@:2}"; }

mkdir -p "$CORVANE_ROOT"/private/var/mobile/Library/{Logs,Preferences} "$CORVANE_ROOT"/{run/corvaned,var}
ln -s ../private/var/mobile "$CORVANE_ROOT/var/mobile"
cp "$source/profiles/phone.plist" "$CORVANE_PROFILE"
chmod 755 "$work"
# The system's own policy with the installed one, and with a user that is kept out.
kept_out='<policy user="daemon"><deny send_destination="com.norvane.corvaned"/></policy>'
sed "s/user=\"corvane-bus\"/user=\"$(id -un)\"/; s|</busconfig>|$kept_out&|" \
  "$source/packaging/dbus/corvane-bus.conf" >"$work/policy.conf"
sed -E "/<(user|fork|pidfile|servicehelper|includedir|include )/d; s|<listen>.*<|<listen>$DBUS_SYSTEM_BUS_ADDRESS<|
  s|</busconfig>|<include>$work/policy.conf</include>&|" /usr/share/dbus-1/system.conf >"$work/bus.conf"

step='no bus'
expect 1 'corvane-bus: no system bus: No such file or directory' "$bin/corvane-bus"

step='a bus, but no daemon'
dbus-daemon --config-file="$work/bus.conf" --nofork --nopidfile 2>"$work/bus" &
bus=$!
eventually [ -S "$work/bus_socket" ]
start_bridge
gdbus monitor --system --dest "${object[0]}" >"$work/heard" 2>&1 &
monitor=$!
eventually hears 'is owned by'
expect 0 'b false' busctl get-property "${object[@]}" $interface Available
refuses_images NotAvailable 'the daemon does not answer: *No such file or directory'

step='images that were read before a call do not answer it'
socket=$CORVANE_ROOT/run/corvaned/com.norvane.corvaned
"$source/tests/slow_daemon.py" "$socket" &
daemon=$!
eventually [ -S "$socket" ]
copy_images >>"$work/answers" &
callers=($!)
sleep 0.3
for _ in {1..3}; do
  copy_images >>"$work/answers" &
  callers+=($!)
done
wait "${callers[@]}"
expect 0 "*'first'*'second'*'second'*'second'*" cat "$work/answers"

step='the daemon comes'
start_daemon
version=$("$bin/corvane-bus" --version)
eventually hears "{'Available': <true>, 'Version': <'${version#* }'>}"
refuses_images NoImages 'no regulatory images are stored'

step='the examples of the documents'
store '<dict><key>conformity mark</key><data>iVA=</data></dict>'
# Three commands, each with the line that it prints.
grep -A1 '^    \$ ' "$source/docs/dbus.md" | sed 's/^    //' >"$work/examples"
while read -r _ command && read -r output; do
  expect 0 "${output//[/\\[}" $command
  read -r _
done <"$work/examples"
[ "$(wc -l <"$work/examples")" -eq 8 ] || fail 'there are not three'

step='values of every kind'
stored=$CORVANE_ROOT/private/var/mobile/Library/cvd/regulatory_images/regulatory_images.plist
set_images() { expect 0 'set *' "$bin/corvanectl" profile --profile "$stored" set --json RegulatoryImages "$1"; }
set_images '["text", -9223372036854775808, 18446744073709551615, 0.5, true, false, {"$date": -0.25},
  {"$data": "AP8="}, {"$set": [{"$set": []}]}, {"key": [{}]}]'
values='s "text" x -9223372036854775808 t 18446744073709551615 d 0.5 b true b false (sd) "date" -0.25'
values+=' ay 2 0 255 (sav) "set" 1 (sav) "set" 0 a{sv} 1 "key" av 1 a{sv} 0'
expect 0 "a{sv} 2 \"RegulatoryImages\" av 10 $values \"ProductVersion\" s \"9.1\"" \
  busctl call "${object[@]}" $interface CopyRegulatoryImages

step='what D-Bus carries no more'
does_not_carry() {
  set_images "$1"
  refuses_images NotCarried "the images have $2"
}
nested() { printf "$1%.0s" $(seq "$3") && printf 1 && printf "$2%.0s" $(seq "$3"); }
set_images "$(nested '{"key":' '}' 19)"
expect 0 '*<int64 1>*' copy_images
does_not_carry "$(nested '[' ']' 29)" 'a nesting that is too deep'
does_not_carry '{"a\u0000b": 1}' 'text with U+0000 or a noncharacter'
does_not_carry '"\uFDD0"' 'text with U+0000 or a noncharacter'
store "<data>$(head -c 33M /dev/zero | base64)</data>"
refuses_images NotCarried 'the images take more than 32 MiB'
# Under sanitizers it takes the daemon longer to answer so many values than corvane-bus waits.
if [ -z "${CORVANE_SANITIZE:-}" ]; then
  store "<array>$(yes '<date>2001-01-01T00:00:00Z</date>' | head -n 1200000)</array>"
  refuses_images NotCarried 'the images have more than 31 MiB'
fi
store '<string>small</string>'

step='another SIM card'
"$bin/corvanectl" profile set Telephony.SIMIdentity 8901260123456789012 >/dev/null
eventually hears "$interface.Notification ('com.norvane.mobile.keelhold.phone_number_changed',)"

step='the interface is the one that is installed'
diff -w <(interface_in <"$source/packaging/dbus/$interface.xml") \
  <(busctl introspect --xml-interface "${object[@]}" | interface_in) || fail 'it is another one'

step='other users'
if as_user nobody true 2>/dev/null; then
  expect 0 '*small*' as_user nobody busctl call "${object[@]}" $interface CopyRegulatoryImages
  expect 1 '*name com.norvane.corvaned cannot be had: Permission denied' as_user nobody "$bin/corvane-bus"
  expect 1 '*Access denied*' as_user daemon busctl call "${object[@]}" $interface CopyRegulatoryImages
fi

step='a daemon that is stopped'
kill -STOP "$daemon"
copy_images >"$work/waiting" 2>&1 &
expect 0 'b true' timeout 1 busctl get-property "${object[@]}" $interface Available
refuses_images NotAvailable 'the daemon does not answer: no answer in time'
wait $!
kill -CONT "$daemon"

step='the daemon ends, and comes back'
kill "$daemon"
wait "$daemon" || fail "the daemon ended with status $?"
eventually hears "{'Available': <false>"
: >"$work/heard"
start_daemon
eventually hears "{'Available': <true>"
expect 0 '*small*' copy_images

step='corvane-bus ends when it is told to'
kill "$bridge"
wait "$bridge" || fail "status $?"

step='an error and more notifications than the bus can carry'
kill "$daemon" "$monitor"
wait "$daemon" "$monitor"
"$source/tests/flooding_daemon.py" "$CORVANE_ROOT/run/corvaned" &
daemon=$!
start_bridge
eventually grep 'the daemon is there' "$work/bridge"
refuses_images Failed 'the answer could not be sent'
eventually grep 'the daemon is gone' "$work/bridge"
memory=$(awk '/VmHWM/ { print $2 }' "/proc/$bridge/status")
[ -n "${CORVANE_SANITIZE:-}" ] || [ "$memory" -lt 40000 ] || fail "it took $memory KiB"

step='corvane-bus ends with the bus'
kill "$bus"
wait "$bridge"
[ $? -eq 1 ] || fail 'the end of the bus is not status 1'
grep -qx 'corvane-bus: the system bus is gone' "$work/bridge" || fail 'it does not say why it ends'
echo 'the daemon is on the bus'
