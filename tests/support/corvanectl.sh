# What tests of installed programs share: how they run corvanectl, and a daemon on a simulated phone below a root of
# its own. To be sourced with the folder of the programs as the first argument.
set -uo pipefail
bin=$1
source=$(realpath "$(dirname "$0")/..")
work=$(realpath "$(mktemp -d)")
daemon=''
failures=0
trap 'kill $(jobs -p) 2>/dev/null; rm -rf "$work"' EXIT

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
