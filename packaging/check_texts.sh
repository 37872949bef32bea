#!/usr/bin/env bash
# Holds the manual pages and the completions against what corvanectl says of itself, and every place that names the
# version against the others. Usage: check_texts.sh BUILD_DIR
set -uo pipefail
build=$(realpath "$1")
cd "$(dirname "$0")/.."
corvanectl=$build/bin/corvanectl
manual=$build/packaging/man/corvanectl.1
failures=0

# same WHAT EXPECTED FOUND: two lists of words, in any order.
same() {
  local expected found
  expected=$(tr ' ' '\n' <<<"$2" | sed '/^$/d' | sort -u)
  found=$(tr ' ' '\n' <<<"$3" | sed '/^$/d' | sort -u)
  [ "$expected" = "$found" ] && return
  printf 'FAILED: %s\n  expected: %s\n  found:    %s\n' "$1" "${expected//$'\n'/ }" "${found//$'\n'/ }" >&2
  failures=$((failures + 1))
}

# What the help of a command lists: its options, which begin a line, and the commands below it.
options_of() { "$corvanectl" "$@" --help | sed -nE 's/^  (-[a-z],)?(--[a-z-]+).*/\2/p'; }
commands_of() { "$corvanectl" "$@" --help | sed -n '/^Subcommands:/,$p' | sed -nE 's/^  ([a-z][a-z-]*) .*/\1/p'; }

# What bash offers behind the words of a command line.
offered_by_bash() {
  (
    source packaging/completions/corvanectl.bash
    compopt() { :; }
    COMP_WORDS=(corvanectl "$@" '') COMP_CWORD=$(($# + 1)) COMPREPLY=()
    cd "$empty" && _corvanectl
    printf '%s\n' "${COMPREPLY[@]}"
  )
}

# The options that the manual names in the section of a command.
in_manual() {
  sed -n "/^\.SS $1\$/,/^\.S[SH] /p" "$manual" | tr -d '\\' | grep -oE -- '--[a-z-]+'
}

empty=$(mktemp -d)
trap 'rm -rf "$empty"' EXIT
commands=$(commands_of)
[ -n "$commands" ] || { echo "FAILED: corvanectl --help lists no commands" >&2; exit 1; }

same 'bash: the commands' "$commands $(options_of)" "$(offered_by_bash)"
same 'the manual: the commands' "$commands" "$(sed -n 's/^\.SS //p' "$manual")"
same 'zsh: the commands' "$commands $(commands_of ark) $(commands_of profile)" \
  "$(sed -nE "s/^ +'([a-z]+):.*/\1/p" packaging/completions/_corvanectl)"

all_options=$(options_of)
for command in $commands; do
  below=$(commands_of "$command")
  options=$(options_of "$command"; for edit in $below; do options_of "$command" "$edit"; done)
  all_options+=" $options"
  same "bash: $command" "$below $(options_of "$command")" "$(offered_by_bash "$command")"
  same "the manual: $command" "$(grep -vx -- --help <<<"$options")" "$(in_manual "$command")"
  for edit in $below; do
    same "bash: $command $edit" "$(options_of "$command"; options_of "$command" "$edit")" \
      "$(offered_by_bash "$command" "$edit")"
  done
done
same 'zsh: the options' "$all_options" "$(grep -oE -- '--[a-z-]+' packaging/completions/_corvanectl)"

version=$("$corvanectl" --version | cut -d' ' -f2)
same 'the version in debian/changelog' "$version" "$(sed -nE '1s/.*\((.*)\).*/\1/p' debian/changelog)"
same 'the version in NEWS.md' "$version" "$(sed -nE 's/^## ([0-9.]+).*/\1/p' NEWS.md | head -1)"
for page in "$build"/packaging/man/*.[158]; do
  same "the version in $(basename "$page")" "$version" "$(sed -nE '1s/.*"corvaned ([0-9.]+)".*/\1/p' "$page")"
done

[ $failures -eq 0 ]
