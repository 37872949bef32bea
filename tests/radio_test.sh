#!/usr/bin/env bash
# Changes the SIM card of a virtual modem that the real ModemManager or oFono manages, on a private bus. Compares
# what the daemon stores, and what its telephony service answers to radio_probe, with the card that is in.
# Usage: radio_test.sh BIN_DIR modemmanager|ofono
set -uo pipefail
bin=$1 service=$2
radio=$(realpath "$(dirname "$0")")/radio
seed=${RADIO_TEST_SEED:-$RANDOM}
work=$(realpath "$(mktemp -d)")
step='preparing'
started=()
trap 'stop_everything 2>/dev/null' EXIT

export CORVANE_ROOT=$work/root DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/bus_socket
export OFONO_PHONESIM_CONFIG=$work/phonesim.conf
PATH+=:/usr/sbin:/usr/lib/polkit-1
mm=org.freedesktop.ModemManager1
mm_path=/org/freedesktop/ModemManager1
at_socket=abstract:$(basename "$work")

stop_everything() {
  kill -KILL "${started[@]}"
  wait
  rm -rf "$work"
}

skip() {
  echo "$service is not tested here: $1"
  exit 77
}

fail() {
  printf 'FAILED: %s: %s\nstored: %s\n' "$step" "$1" "$(stored)" >&2
  for name in bus polkitd modemmanager ofono at_modem probe daemon calls; do
    [ ! -s "$work/$name" ] || printf 'the end of %s:\n%s\n' "$name" "$(tail -n 15 "$work/$name")" >&2
  done
  exit 1
}

# Waits for half a minute at most. What must hold all the time is checked again and again.
eventually() {
  local deadline=$((SECONDS + 30))
  until "$@"; do
    if [ $SECONDS -gt $deadline ]; then fail "waited in vain for '$*'"; fi
    check_stored
    sleep 0.05
  done
  check_stored
}

# ---- processes --------------------------------------------------------------------------------------------

# start NAME COMMAND...: in the background, with a file of this name for its output. It ends with this script, even
# where that is killed.
start() {
  setpriv --pdeathsig KILL "${@:2}" >>"$work/$1" 2>&1 &
  started+=($!)
}

# end PROCESS: by SIGTERM. Sanitizers report what leaked.
end() {
  kill "$1"
  wait "$1" || fail "a process ended with status $?"
}

kill_now() {
  kill -KILL "$1"
  wait "$1"
} 2>/dev/null

on_bus() { busctl status "$1" >/dev/null 2>&1; }
call() { busctl call "$@" >/dev/null 2>>"$work/calls" || fail "a call failed: $*"; }

start_bus() {
  rm -f "$work/bus_socket"
  start bus dbus-daemon --config-file="$work/bus.conf" --nofork --nopidfile
  bus=$!
  eventually on_bus org.freedesktop.DBus
}

start_modemmanager() {
  start modemmanager ModemManager --test-enable --test-no-udev --test-no-qrtr --test-no-suspend-resume
  modemmanager=$!
  eventually on_bus $mm
}

# ModemManager asks polkit who may enter a PIN.
start_modemmanager_with_modem() {
  start polkitd polkitd --no-debug
  polkitd=$!
  eventually on_bus org.freedesktop.PolicyKit1
  start_modemmanager
  call $mm $mm_path $mm.Test SetProfile ssas virtual telit 1 "$at_socket"
}

kill_modemmanager() {
  kill_now "$modemmanager"
  kill_now "$polkitd"
}

enter_pin_in_modemmanager() { call $mm "$(busctl tree --list $mm | grep -m 1 /SIM/)" $mm.Sim SendPin s 1234; }

# The modem goes and comes back, and ModemManager reads its card again.
read_card_again() { call $mm $mm_path $mm InhibitDevice sb /virtual/virtual true; }

# In a mount namespace of its own, where another folder takes the place of its storage.
start_ofono() {
  start ofono unshare --mount sh -c 'mount --bind "$0" /var/lib/ofono && exec "$@"' "$work/ofono_storage" \
    ofonod --nodetach --noplugin=udevng,udev
  ofono=$!
  eventually on_bus org.ofono
  switch_ofono_modem true
}

switch_ofono_modem() { call org.ofono /phonesim org.ofono.Modem SetProperty sv Powered b "$1"; }

start_daemon() {
  start daemon env CORVANE_PLATFORM=linux CORVANE_LOG_STDERR=1 "$bin/corvaned"
  daemon=$!
  eventually [ -S "$CORVANE_ROOT/run/corvaned/com.norvane.corvaned" ]
  start notifications "$bin/corvanectl" notifications
}

start_at_modem() {
  coproc at_modem { exec setpriv --pdeathsig KILL "$radio/at_modem.py" "$at_socket" 2>"$work/at_modem"; }
  started+=("$at_modem_PID")
  local tcp_port
  read -rt 30 -u "${at_modem[0]}" tcp_port || fail 'the virtual modem does not start'
  printf '[phonesim]\nAddress=127.0.0.1\nPort=%s\n' "$tcp_port" >"$OFONO_PHONESIM_CONFIG"
}

# An order to the virtual modem; at_modem.py lists them. Cards have numbers of two digits.
modem() {
  echo "$*" >&"${at_modem[1]}"
  read -rt 30 -u "${at_modem[0]}" || fail "the virtual modem does not obey '$*'"
}

# Not faster than fingers can, so that a service that reads a card meanwhile gets an error, and not half of each.
change_card() {
  modem remove
  sleep 0.3
  modem insert "$@"
}

# ---- what must hold ---------------------------------------------------------------------------------------

stored() { "$bin/corvanectl" show "$CORVANE_ROOT/private/var/mobile/Library/cvd/data_ark.plist" 2>/dev/null; }

# The lines that name two cards: all that a card tells ends with its number.
lines_with_two_cards() { grep -P '(\d\d)[">].*(?!\1)\d\d[">]'; }

check_stored() {
  local line
  if line=$(stored | tr -d '\n' | lines_with_two_cards); then fail "two cards are stored: $line"; fi
}

# begin STEP: what the probe and the daemon write from now on belongs to this step.
begin() {
  step=$1
  echo "$SECONDS s: $step"
  probe_begin=$(($(wc -l <"$work/probe") + 1))
  daemon_begin=$(($(wc -l <"$work/daemon") + 1))
}
probe_in_step() { tail -n "+$probe_begin" "$work/probe"; }
daemon_in_step() { tail -n "+$daemon_begin" "$work/daemon"; }

check_answers() {
  local line
  if line=$(probe_in_step | lines_with_two_cards); then fail "an answer has two cards: $line"; fi
}

# For steps in which the modem is not gone for long.
check_status_was_held() {
  if probe_in_step | grep -v '"Status"'; then fail 'there was no SIM status'; fi
}

check_daemon_removed_nothing() {
  local line
  if line=$(daemon_in_step | grep 'Removing .* from the data ark'); then fail "removed: $line"; fi
}

# For steps in which no service sees the slot empty.
check_nothing_removed() {
  local line
  if line=$(probe_in_step | grep -E '"(Identity|Subscriber)": ""'); then fail "answered as removed: $line"; fi
  check_daemon_removed_nothing
}

# stores CARD CARD STATUS: the card of the identity, the card of the subscriber, and the SIM status; '' for none.
stores() {
  local expected='{'
  [ -z "$1" ] || expected+=$'\n'"  \"-IntegratedCircuitCardIdentity\": \"89882110000000000$1\""
  [ -z "$2" ] || expected+=$'\n'"  \"-InternationalMobileSubscriberIdentity\": \"3101500000000$2\""
  [ -z "$3" ] || expected+=$'\n'"  \"-PreviousSIMStatus\": \"$3\""
  [ "$(stored)" = "$expected"$'\n}' ]
}

# answers PATTERN: whether the last line of the probe is like this.
answers() { [[ $(tail -n 1 "$work/probe") == $1 ]]; }
answers_no_status() { ! answers '*"Status"*'; }

# Only ModemManager tells the groups.
answers_all_of() {
  local groups='"Group1": <2 bytes: a1'$1'>, "Group2": <2 bytes: b2'$1'>, '
  [ "$service" = modemmanager ] || groups=''
  answers "*\", $groups\"Identity\": \"*$1\", \"Number\": \"*$1\", \"Status\": \"ready\", \"Subscriber\": \"*$1\"}"
}

delivered() { probe_in_step | grep -q "\"Event\": \"Telvo$1Notification\""; }
expect_delivered() { eventually delivered "$1"; }
expect_not_delivered() { if delivered "$1"; then fail "$1 was delivered"; fi; }

posted() { grep -c phone_number_changed "$work/notifications"; }
posted_more_than() { [ "$(posted)" -gt "$1" ]; }

expect_card() {
  eventually answers_all_of "$1"
  eventually stores "$1" "$1" ready
  check_answers
}

expect_locked_card() {
  eventually answers "*\"Identity\": \"*$1\", \"Status\": \"pin required\", \"Subscriber\": \"\"}"
  eventually stores "$1" '' 'pin required'
  check_answers
}

expect_no_card() {
  eventually answers '*"Identity": "", "Status": "not inserted", "Subscriber": ""}'
  eventually stores '' '' 'not inserted'
  check_answers
}

# ---- the stories ------------------------------------------------------------------------------------------

prepare() {
  [ "$(id -u)" -eq 0 ] || skip 'polkitd and mount namespaces need root'
  mkdir -p "$CORVANE_ROOT"/private/var/mobile/Library/{Logs,Preferences} "$CORVANE_ROOT"/{run/corvaned,var}
  ln -s ../private/var/mobile "$CORVANE_ROOT/var/mobile"
  mkdir "$work/ofono_storage"
  touch "$work/probe" "$work/daemon"
  # polkitd is a user of its own.
  chmod 711 "$work"
  cat >"$work/bus.conf" <<END
<busconfig>
  <listen>$DBUS_SYSTEM_BUS_ADDRESS</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="root"/>
    <allow user="polkitd"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
END
  start_at_modem
  start probe "$bin/radio_probe"
  probe=$!
  start_daemon
}

follow_modemmanager() {
  begin 'the first card, with a bus and a ModemManager that start after the daemon'
  modem insert 11
  start_bus
  start_modemmanager_with_modem
  expect_card 11
  expect_delivered SIMStatusChanged
  eventually posted_more_than 0

  begin 'a card that waits for its PIN'
  change_card 12 locked
  expect_locked_card 12
  expect_delivered SIMNewlyInserted

  begin 'its PIN'
  enter_pin_in_modemmanager
  expect_card 12
  expect_not_delivered SIMNewlyInserted
  check_nothing_removed

  begin 'the card out'
  modem remove
  expect_no_card

  begin 'another card'
  modem insert 13
  expect_card 13
  expect_delivered SIMNewlyInserted

  begin 'a locked card in its place while the daemon is down'
  end "$daemon"
  change_card 14 locked
  eventually answers '*"pin required"*'
  start_daemon
  eventually stores 13 13 'pin required'
  check_daemon_removed_nothing
  enter_pin_in_modemmanager
  expect_card 14

  begin 'another number on the same card'
  local posted_before
  posted_before=$(posted)
  modem renumber +155577714
  read_card_again
  eventually answers '*"Number": "+155577714"*'
  expect_card 14
  expect_delivered PhoneNumberSettingChanged
  expect_not_delivered SIMNewlyInserted
  eventually posted_more_than "$posted_before"
  check_status_was_held
  check_nothing_removed

  begin 'a card whose subscriber cannot be read'
  modem fail +CIMI
  change_card 15
  eventually stores 15 '' ready
  modem allow +CIMI
  read_card_again
  expect_card 15

  begin 'a card whose identity cannot be read'
  modem fail +CRSM
  change_card 16
  eventually answers '*"Number": "*16"*'
  modem allow +CRSM
  read_card_again
  expect_card 16
  check_nothing_removed

  begin 'ModemManager killed, and away for longer than it is waited for'
  kill_modemmanager
  eventually answers_no_status
  eventually stores 16 16 ''
  start_modemmanager_with_modem
  expect_card 16
  expect_not_delivered SIMNewlyInserted
  check_nothing_removed

  begin 'the bus killed, and another card'
  kill_now "$bus"
  kill_modemmanager
  change_card 17
  start_bus
  start_modemmanager_with_modem
  expect_card 17
  check_nothing_removed
}

follow_ofono() {
  unshare --mount true 2>/dev/null || skip 'its storage cannot be replaced, because there are no mount namespaces'

  begin 'the first card, in a modem that only oFono has'
  modem insert 11
  start_bus
  start_modemmanager
  start_ofono
  expect_card 11
  expect_delivered SIMStatusChanged
  eventually posted_more_than 0

  begin 'a card that waits for its PIN'
  change_card 12 locked
  expect_locked_card 12
  expect_delivered SIMNewlyInserted

  begin 'its PIN and another number, which oFono reads when the modem is switched on again'
  call org.ofono /phonesim org.ofono.SimManager EnterPin ss pin 1234
  modem renumber +155577712
  switch_ofono_modem false
  switch_ofono_modem true
  eventually answers '*"Number": "+155577712"*'
  expect_card 12
  expect_delivered PhoneNumberSettingChanged
  expect_not_delivered SIMNewlyInserted
  check_nothing_removed

  begin 'the card out'
  modem remove
  expect_no_card

  begin 'another card while the daemon is down'
  end "$daemon"
  modem insert 13
  start_daemon
  expect_card 13

  begin 'oFono killed, and another card'
  kill_now "$ofono"
  change_card 14
  start_ofono
  expect_card 14
  check_nothing_removed
}

follow_changes_at_random() {
  begin "ten changes at random, as RADIO_TEST_SEED=$seed repeats them"
  RANDOM=$seed
  local card expect
  for card in {31..40}; do
    case $((RANDOM % 4)) in
      0) modem remove && expect=expect_no_card ;;
      1) change_card "$card" locked && expect=expect_locked_card ;;
      *) change_card "$card" && expect=expect_card ;;
    esac
    # The next change may come into the middle of this one. oFono misses a card that comes while it reads another.
    if [ "$service" = ofono ] || [ $((RANDOM % 2)) -eq 0 ]; then $expect "$card"; else sleep "$((RANDOM % 3)).$((RANDOM % 10))"; fi
    check_stored
    check_answers
  done
  $expect "$card"
}

prepare
"follow_$service"
follow_changes_at_random
end "$daemon"
end "$probe"
echo "the daemon follows $service, $SECONDS s"
