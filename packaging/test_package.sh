#!/usr/bin/env bash
# Builds the Debian packages, installs them into a bare root, boots systemd over it, and checks there what the
# documents promise. Usage: test_package.sh
#
# Everything lies in build/package. The bare root is made once and copied for each run. The booted system ends with
# this script.
set -uo pipefail
cd "$(dirname "$0")/.."
work=$PWD/build/package
source=$work/source
base=$work/base
root=$work/root
cgroup=corvane-package-test
library=/private/var/mobile/Library
passed=0 failed=0
boot='' init='' asking=''
get='apt-get -qq -y -o Dpkg::Use-Pty=0 --no-install-recommends'
environment=(PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8)

if [ "$(id -u)" -ne 0 ]; then
  echo "./test package needs root: it boots a system in namespaces" >&2
  exit 1
fi

fail_with_log() {
  echo "$1" >&2
  [ -e "$work/log" ] && tail -30 "$work/log" >&2
  exit 1
}

# check WHAT COMMAND...: counts and prints one line; with the command's output where it failed.
check() {
  local output
  if output=$("${@:2}" 2>&1); then
    passed=$((passed + 1))
    echo "  passed  $1"
  else
    failed=$((failed + 1))
    printf '  FAILED  %s\n%s\n' "$1" "$(sed 's/^/          /' <<<"$output")"
  fi
}

# within SECONDS COMMAND...: tries it until it succeeds.
within() {
  local deadline=$((SECONDS + $1))
  until "${@:2}" >/dev/null 2>&1; do
    if [ $SECONDS -ge $deadline ]; then
      echo "not within $1 s: ${*:2}"
      return 1
    fi
    sleep 0.1
  done
}

# --- the packages ---

copy_source() {
  rm -rf "$source" && mkdir -p "$source"
  tar -c --exclude=./build --exclude=./.git --exclude=__pycache__ . | tar -x -C "$source"
}

build_packages() {
  rm -f "$work"/*.deb "$work"/*.changes "$work"/*.buildinfo
  (cd "$source" && DEB_BUILD_OPTIONS="parallel=$(nproc)" dpkg-buildpackage -b -uc -us)
}

# The same package under a later version, to upgrade to.
make_upgrade() {
  local name unpacked=$work/unpacked
  mkdir -p "$work/upgrade"
  rm -f "$work"/upgrade/*
  for name in corvaned corvanectl corvane-bus; do
    rm -rf "$unpacked"
    dpkg-deb -R "$work/${name}_${version}_$architecture.deb" "$unpacked" || return 1
    sed -i "s/^Version: .*/Version: $version+upgrade/" "$unpacked/DEBIAN/control"
    dpkg-deb --root-owner-group -b "$unpacked" "$work/upgrade" || return 1
  done
  rm -rf "$unpacked"
}

# --- the root ---

make_base() {
  [ -e "$base/complete" ] && return
  rm -rf "$base"
  debootstrap --variant=minbase --include=systemd,systemd-sysv,dbus bookworm "$base" || return 1
  touch "$base/complete"
}

# What is installed later is fetched into the base, because there is no network in the booted system.
fetch_dependencies() {
  rm -rf "$base/packages"
  mkdir "$base/packages" && cp "$work"/*.deb "$work"/upgrade/*.deb "$base/packages" || return 1
  download || { in_folder "$base" apt-get -q update && download; }
}

download() {
  in_folder "$base" sh -c "$get --download-only install $packages $library_packages $bus_package ofono"
}

in_folder() {
  chroot "$1" env -i "${environment[@]}" "${@:2}"
}

# A root with the packages, as an image builder makes it, and with state that a daemon which ran as root has left.
make_root() {
  rm -rf "$root"
  cp -a "$base" "$root" || return 1
  # Daily jobs would hold apt's lock, and leave files, when the test happens to run at their time.
  in_folder "$root" systemctl mask apt-daily.timer apt-daily-upgrade.timer dpkg-db-backup.timer || return 1
  list_files >"$work/files_before"
  make_state_of_root
  in_folder "$root" sh -c "$get install $packages"
}

make_state_of_root() {
  mkdir -p "$root$library/cvd" "$root$library/Logs/corvaned" "$root/run/corvaned"
  (umask 077 && touch "$root/run/corvaned/corvaned.lock")
  chmod 700 "$root$library/cvd"
  cp "$source/plist/testdata/ark.bin.plist" "$root$library/cvd/data_ark.plist"
  echo 'a line of before' >"$root$library/Logs/corvaned/corvaned.log"
}

# --- the booted system ---

start_system() {
  packaging/boot_systemd.sh "$root" "$cgroup" >>"$work/console" 2>&1 &
  boot=$!
  within 10 find_init && within 60 is_booted
}

find_init() {
  init=$(pgrep -P "$boot" -x systemd)
}

is_booted() { [[ $(inside systemctl is-system-running) =~ running|degraded ]]; }

end_system() {
  [ -n "$boot" ] || return 0
  [ -n "$init" ] && kill -KILL "$init" 2>/dev/null
  kill -KILL "$boot" 2>/dev/null
  wait "$boot" 2>/dev/null
  boot='' init=''
}

clean_up() {
  [ -n "$asking" ] && kill "$asking" 2>/dev/null
  end_system
  within 10 remove_cgroups
  rm -rf "$root"
}

# The processes of a system that was killed leave their cgroups a moment later.
remove_cgroups() {
  local folders=(/sys/fs/cgroup/{.,unified,systemd}/"$cgroup")
  find "${folders[@]}" -depth -type d -exec rmdir {} \; 2>/dev/null
  [ -z "$(find "${folders[@]}" -maxdepth 0 2>/dev/null)" ]
}

inside() {
  nsenter -t "$init" -m -p -u -i -C -n -- env -i "${environment[@]}" "$@"
}

as_nobody() { inside runuser -u nobody -- "$@"; }
property() { inside systemctl show -P "$1" "${2:-corvaned.service}"; }
is_active() { [ "$(property ActiveState)" = active ]; }
main_pid() { property MainPID; }

# ask: whether somebody who is not root gets the images that were stored.
ask() {
  local answer
  answer=$(as_nobody corvanectl images --json 2>&1)
  [[ $answer == *'"$data": "iVBORw0KGgo="'* ]] && return
  echo "$answer"
  return 1
}

write_plist() {
  inside sh -c "cat >'$1'" <<<"<plist version=\"1.0\"><dict>$2</dict></plist>"
}

# --- what is checked ---

state_is_taken_over() {
  local expected="700 corvane cvd
644 corvane cvd/data_ark.plist
644 corvane Logs/corvaned/corvaned.log"
  diff <(echo "$expected") <(inside sh -c "cd $library && stat -c '%a %U %n' cvd cvd/* Logs/corvaned/*.log") &&
    inside grep -q 'a line of before' "$library/Logs/corvaned/corvaned.log" &&
    inside corvanectl show "$library/cvd/data_ark.plist" | grep +15550100
}

sockets_are_right() {
  local expected="666 corvane com.norvane.corvaned
600 corvane com.norvane.corvaned.admin
666 corvane com.norvane.notifications"
  diff <(echo "$expected") <(inside sh -c 'cd /run/corvaned && stat -c "%a %U %n" com.*')
}

# After mere warnings systemd-analyze ends with status 0 as well.
units_are_right() {
  local complaints
  complaints=$(inside systemd-analyze verify --man=no "$@" 2>&1) && [ -z "$complaints" ] ||
    { echo "$complaints" && return 1; }
}

# is_hardened EXPOSURE [UNIT]: ten times the exposure.
is_hardened() {
  inside systemd-analyze security --no-pager --threshold="$1" "${2:-corvaned.service}" | tail -1
}

runs_as_its_user() {
  local capabilities
  capabilities=$(inside sed -n 's/^CapEff:\s*//p' "/proc/$(main_pid)/status")
  # CAP_SYS_PTRACE (bit 19) and CAP_DAC_READ_SEARCH (bit 2).
  [ "$(inside stat -c %U "/proc/$(main_pid)")" = corvane ] && [ $((16#$capabilities)) -eq $((1 << 19 | 1 << 2)) ]
}

status_in_words() { [ -n "$(property StatusText)" ]; }

sees_network_interfaces() {
  nsenter -t "$init" -n ip link add corvane0 type veth peer name corvane1
  inside nsenter -t "$(main_pid)" -m ls /sys/class/net/corvane0
}

first_request_starts_it() {
  inside systemctl stop corvaned.service && [ "$(property ActiveState)" = inactive ] && ask && within 5 is_active
}

restarts_hold_requests() {
  local i before
  for i in $(seq 20); do
    before=$(main_pid)
    inside systemctl restart --no-block corvaned.service
    ask || { echo "in restart $i"; return 1; }
    within 5 is_another "$before" || return 1
  done
}

hup_does_nothing() {
  local before
  before=$(main_pid)
  inside systemctl kill -s HUP corvaned.service
  sleep 1
  [ "$(main_pid)" = "$before" ] && ask
}

is_another() { [ "$(main_pid)" != "$1" ] && is_active; }

killed_daemon_is_restarted() {
  local before
  before=$(main_pid)
  inside systemctl kill -s KILL --kill-whom=main corvaned.service
  ask && within 5 is_another "$before"
}

watchdog_restarts_it() {
  local before
  before=$(main_pid)
  inside systemctl kill -s STOP --kill-whom=main corvaned.service
  within 60 is_another "$before" && ask &&
    inside journalctl -q -o cat -u corvaned.service | grep "Watchdog timeout"
}

# log_reaches_journal LEVEL: with the level that was configured for the log.
log_reaches_journal() {
  write_plist "$library/Preferences/com.norvane.logger.plist" "<key>Corvane</key><integer>$1</integer>"
  inside systemctl restart corvaned.service
  inside rm "$library/Preferences/com.norvane.logger.plist"
  within 5 banner_is_in_journal "$1"
}

banner_is_in_journal() {
  inside journalctl -q -o cat -p "$1..$1" -t corvaned _SYSTEMD_UNIT=corvaned.service | grep 'Corvane startup'
}

# start_signed NAME MODE [OPTION...]: runs a signed program of root with these permissions, as a service.
start_signed() {
  write_plist /tmp/entitlements.plist '<key>dial</key><true/>'
  inside install -m "$2" /bin/sleep "/usr/local/bin/$1" &&
    inside corvanectl entitlements --sign "/usr/local/bin/$1" /tmp/entitlements.plist &&
    inside systemd-run -q --unit="$1" "${@:3}" "/usr/local/bin/$1" 1000
}

has_entitlements() {
  local answer
  answer=$(inside corvanectl entitlements --json "$(property MainPID "$1.service")" 2>&1)
  [[ $answer == *'"dial": true'* ]] || { echo "$answer"; return 1; }
}

entitlements_of_a_users_program() { start_signed dialer 755 --uid=nobody && within 5 has_entitlements dialer; }
entitlements_of_an_unreadable_program() { start_signed recorder 700 && within 5 has_entitlements recorder; }

# A program that everybody may read keeps its entitlements. For the other one the log says what is forbidden.
works_without_read_search() {
  local drop_in=/etc/systemd/system/corvaned.service.d result=0
  inside install -D -m 644 -t "$drop_in" /usr/share/doc/corvaned/examples/without-read-search.conf
  inside systemctl daemon-reload
  inside systemctl restart corvaned.service
  is_hardened 7 && has_entitlements dialer && ! has_entitlements recorder &&
    inside grep "sigq1($(property MainPID recorder.service)): Permission denied" \
      "$library/Logs/corvaned/corvaned.log" || result=1
  inside rm -r "$drop_in"
  inside systemctl daemon-reload
  inside systemctl restart corvaned.service
  return $result
}

# oFono answers root only, unless the bus is told otherwise.
ofono_answers_the_daemon() {
  inside sh -c "$get install ofono" && within 20 ofono_answers corvane && ! ofono_answers nobody
}

ofono_answers() { inside runuser -u "$1" -- busctl call org.ofono / org.ofono.Manager GetModems; }

# The programs of docs/client.md, with nothing but what the library's packages bring.
library_installs() { inside sh -c "$get install $library_packages"; }

c_program_runs() {
  local examples=/usr/share/doc/libcorvane-dev/examples
  inside sh -c "cc -o /usr/local/bin/client $examples/client.c \$(pkg-config --cflags --libs corvane)" &&
    saves_an_image /usr/local/bin/client /tmp/saved && inside rm /usr/local/bin/client
}

python_program_runs() { saves_an_image python3 /usr/share/doc/python3-corvane/examples/client.py /tmp/saved 1; }

# saves_an_image COMMAND...: into /tmp/saved, as somebody who is not root.
saves_an_image() {
  local output
  as_nobody mkdir /tmp/saved
  output=$(as_nobody "$@" 2>&1 </dev/null)
  inside rm -r /tmp/saved
  [ "$output" = '/tmp/saved/image-1.png: image/png, 8 bytes' ] || { echo "$output"; return 1; }
}

# Installed late, because it starts a daemon that was stopped.
bus_package_is_right() {
  inside sh -c "$get install $bus_package" && is_bus_active && units_are_right corvane-bus.service &&
    is_hardened 2 corvane-bus.service &&
    [ "$(inside stat -c %U "/proc/$(property MainPID corvane-bus.service)")" = corvane-bus ]
}

is_bus_active() { [ "$(property ActiveState corvane-bus.service)" = active ]; }

bus_call_starts_it() {
  inside systemctl stop corvane-bus.service && ask_bus && is_bus_active
}

# ask_bus: whether somebody who is not root gets the images that were stored, over the bus.
ask_bus() {
  as_nobody busctl call com.norvane.corvaned /com/norvane/corvaned com.norvane.corvaned1 CopyRegulatoryImages |
    grep '"Name" s "conformity mark"'
}

availability_follows_the_daemon() {
  local heard=$work/heard
  inside busctl monitor --json=short --match "type='signal',member='PropertiesChanged'" >"$heard" 2>&1 &
  asking=$!
  within 5 grep -q Monitoring "$heard" && inside systemctl restart corvaned.service &&
    within 20 grep -q '"Available":{"type":"b","data":true}' "$heard" &&
    grep -q '"Available":{"type":"b","data":false}' "$heard" && ask_bus
  local result=$?
  kill $asking
  asking=''
  return $result
}

# A refused start is not repeated, and a request then fails instead of waiting.
refusal_is_final() {
  local drop_in=/run/systemd/system/corvaned.service.d result=0
  inside mkdir -p "$drop_in"
  inside sh -c "printf '[Service]\nEnvironment=CORVANE_PLATFORM=bogus\n' >$drop_in/test.conf"
  inside systemctl daemon-reload
  inside systemctl restart corvaned.service 2>/dev/null && echo 'it did not refuse' && result=1
  sleep 2
  [ "$(refusals)" -eq 1 ] || { echo "$(refusals) refusals" && result=1; }
  ask && result=1
  inside rm -r "$drop_in"
  inside systemctl daemon-reload
  inside systemctl reset-failed corvaned.service
  inside systemctl start corvaned.service && ask && return $result
}

refusals() { inside journalctl -q -o cat -u corvaned.service | grep -c 'must be linux or simulated: bogus'; }

upgrade_holds_requests() {
  local before refused=$work/refused
  before=$(main_pid)
  rm -f "$refused"
  ask_until "$work/upgraded" "$refused" &
  asking=$!
  inside sh -c "$get install /packages/*+upgrade_*.deb"
  touch "$work/upgraded"
  wait "$asking"
  asking=''
  rm "$work/upgraded"
  if [ -e "$refused" ]; then sort "$refused" | uniq -c && return 1; fi
  is_another "$before" && [ "$(inside dpkg-query -W -f '${Version}' corvaned)" = "$version+upgrade" ] && ask
}

# ask_until FILE REFUSED: goes on asking until there is such a file, and notes what was not answered.
ask_until() {
  until [ -e "$1" ]; do ask >"$work/answer" || cat "$work/answer" >>"$2"; done
}

remove_keeps_state() {
  inside sh -c "$get remove corvaned" &&
    inside sh -c "! systemctl is-active corvaned.service && ! ls -d /run/corvaned && ! pidof corvaned" &&
    inside ls "$library/Logs/corvaned/corvaned.log" &&
    inside corvanectl show "$library/cvd/regulatory_images/regulatory_images.plist"
}

install_finds_state() {
  inside sh -c "$get install $packages --allow-downgrades" && is_active && ask
}

# Without what other packages and the boot keep for themselves.
list_files() {
  local others='dev|etc/machine-id|old|proc|run|sys|tmp|var/(cache|lib/apt|lib/dpkg|lib/systemd|log|tmp)'
  (cd "$root" && find . -xdev -regextype posix-extended -regex "\./($others)" -prune -o -print | sort)
}

purge_leaves_nothing() {
  write_plist "$library/Preferences/com.norvane.corvaned.plist" '<key>MachineHack</key><string>q52</string>'
  inside mkdir /etc/corvaned
  write_plist /etc/corvaned/properties.plist '<key>ProductType</key><string>device</string>'
  inside sh -c 'rm /usr/local/bin/dialer /usr/local/bin/recorder'
  inside sh -c "$get purge --autoremove corvaned corvanectl corvane-bus ofono $library_names" &&
    inside id corvane &&
    diff "$work/files_before" <(list_files)
}

# --- main ---

mkdir -p "$work"
exec 9>"$work/lock"
flock --nonblock 9 || fail_with_log "another ./test package runs in $work"
packaging/install_packages.sh package || exit 1
trap clean_up EXIT
trap 'exit 1' INT TERM

: >"$work/console"
echo 'building the packages'
{ copy_source && build_packages; } >"$work/log" 2>&1 || fail_with_log 'the packages do not build'
version=$(sed -nE '1s/.*\((.*)\).*/\1/p' debian/changelog)
architecture=$(dpkg --print-architecture)
packages="/packages/corvaned_${version}_$architecture.deb /packages/corvanectl_${version}_$architecture.deb"
library_names='libcorvane0 libcorvane-dev python3-corvane gcc libc6-dev pkgconf'
library_packages="/packages/libcorvane0_${version}_$architecture.deb \
  /packages/libcorvane-dev_${version}_$architecture.deb /packages/python3-corvane_${version}_all.deb \
  gcc libc6-dev pkgconf"
bus_package="/packages/corvane-bus_${version}_$architecture.deb"
make_upgrade >"$work/log" 2>&1 || fail_with_log 'the packages cannot be repacked'

echo 'making a root, and booting it'
make_base >"$work/log" 2>&1 || fail_with_log 'debootstrap failed'
fetch_dependencies >"$work/log" 2>&1 || fail_with_log 'the dependencies cannot be fetched'
make_root >"$work/log" 2>&1 || fail_with_log 'the packages cannot be installed'
start_system >"$work/log" 2>&1 || fail_with_log "the system does not boot: $work/console"

check 'lintian finds no errors and no warnings' \
  lintian --allow-root --fail-on error,warning "$work/corvaned_${version}_$architecture.changes"
check 'the daemon is active within 5 s' within 5 is_active
check 'state of a daemon that ran as root is taken over' state_is_taken_over
check 'the sockets have their modes and their owner' sockets_are_right
check 'the units are correct' units_are_right corvaned.service corvaned.socket corvaned-admin.socket \
  corvaned-notifications.socket
check 'the exposure is 0.9 at most' is_hardened 9
check 'it runs as its own user with two capabilities' runs_as_its_user
check 'its status is shown' status_in_words
check 'it sees the network interfaces of the system' sees_network_interfaces
check 'images that root stores are answered to others' inside sh -c "$(<"$source/debian/tests/images")"
check 'the first request starts the daemon' first_request_starts_it
check '20 restarts, each with a request that is answered' restarts_hold_requests
check 'HUP does nothing' hup_does_nothing
check 'it is restarted after KILL, and a request meanwhile is answered' killed_daemon_is_restarted
check 'it is restarted by the watchdog after STOP' watchdog_restarts_it
check 'the log is in the journal with priority 5' log_reaches_journal 5
check 'the log is in the journal with priority 3' log_reaches_journal 3
check "entitlements of another user's program" entitlements_of_a_users_program
check 'entitlements of a program that only root may read' entitlements_of_an_unreadable_program
check 'without the second capability the log says what is forbidden' works_without_read_search
check 'oFono answers the daemon' ofono_answers_the_daemon
check 'the client library installs' library_installs
check 'a C program is built with it and runs' c_program_runs
check 'a Python program runs' python_program_runs
check 'a refusal to start is final, and can be put right' refusal_is_final
check 'the package for the bus is installed, hardened, and runs as its own user' bus_package_is_right
check 'a call on the bus starts it, and gets the images' bus_call_starts_it
check 'the bus hears that the daemon goes and comes' availability_follows_the_daemon
check 'every request is answered during an upgrade' upgrade_holds_requests
check 'remove keeps state and log' remove_keeps_state
check 'installed again, it has its state' install_finds_state
check 'purge leaves nothing but the user' purge_leaves_nothing

echo "$passed passed, $failed failed"
[ $failed -eq 0 ]
