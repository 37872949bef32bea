#!/usr/bin/env bash
# Installs the build into a folder, and with what is there builds and runs the programs of docs/client.md against a
# daemon on a simulated phone. Usage: client_library_test.sh BUILD_DIR
build=$(realpath "$1")
source "$(dirname "$0")/support/corvanectl.sh" "$build/bin"
image=$work/image

# must COMMAND...: prints what it writes where it fails.
must() {
  local output
  output=$("$@" 2>&1) || fail "'$*' ended with status $?: $output"
}

# same WHAT EXPECTED FOUND
same() {
  if [ "$2" != "$3" ]; then fail "$1: $(diff <(echo "$2") <(echo "$3"))"; fi
}

# The program that docs/client.md shows under a link to this file.
shown() { sed -n "/^\[examples\/$1\]/,/^\`\`\`\$/p" "$source/docs/client.md" | sed '1,/^```./d; /^```$/d'; }

step='install'
must env DESTDIR="$image" cmake --install "$build"
package=$(dirname "$(find "$image" -name corvane.pc)")
libraries=$(dirname "$package")
export PKG_CONFIG_PATH=$package PKG_CONFIG_SYSROOT_DIR=$image LD_LIBRARY_PATH=$libraries
export PKG_CONFIG_ALLOW_SYSTEM_CFLAGS=1 PKG_CONFIG_ALLOW_SYSTEM_LIBS=1
PYTHONPATH=$(dirname "$(find "$image" -type d -path '*/python3/*' -name corvane)")
export PYTHONPATH PYTHONDONTWRITEBYTECODE=1

step='the interface'
symbols() { nm -D --defined-only --without-symbol-versions "$libraries/libcorvane.so.0"; }
exported=$(symbols | awk '$2 == "T" { print $3 }' | sort)
others=$(symbols | awk '$2 != "T" { print $3 }')
declared=$(grep -oE '\bcorvane_[a-z0-9_]+\(' "$(find "$image" -name corvane.h)" | tr -d '(' | sort -u)
recorded=$(sed -nE 's/^ (corvane_[a-z0-9_]+)@.*/\1/p' "$source/debian/libcorvane0.symbols" | sort)
same 'only what the header declares is exported' "$declared" "$exported"
same 'nothing else but the name of the version' CORVANE_0 "$others"
same 'debian/libcorvane0.symbols has every function' "$declared" "$recorded"

step='the programs of docs/client.md'
for example in "$source"/examples/client.* "$source"/examples/raw_wire.py; do
  name=$(basename "$example")
  shown "$name" >"$work/$name"
  must diff "$example" "$work/$name"
done
strict='-Wall -Wextra -Wpedantic -Wconversion -Werror'
must cc -std=c99 $strict -o "$work/client_c" "$work/client.c" $(pkg-config --cflags --libs corvane)
must c++ -std=c++17 $strict -o "$work/client_cpp" "$work/client.cpp" $(pkg-config --cflags --libs corvane)

step='the CMake package'
version=$(corvanectl --version | cut -d' ' -f2)
cat >"$work/CMakeLists.txt" <<TXT
cmake_minimum_required(VERSION 3.25)
project(client LANGUAGES C)
find_package(corvane $version REQUIRED)
add_executable(client client.c)
target_link_libraries(client corvane::corvane)
TXT
must cmake -G Ninja -S "$work" -B "$work/build" -DCMAKE_PREFIX_PATH="${libraries%/lib*}"
must cmake --build "$work/build"

step='no daemon'
mkdir "$work/saved"
for program in "$work/client_c $work" "$work/client_cpp" "/usr/bin/python3 $work/client.py $work" \
  "/usr/bin/python3 $work/raw_wire.py"; do
  output=$($program 2>&1) && fail "'$program' succeeded"
  if [[ $output != *"No such file or directory" || $output == *$'\n'* ]]; then
    fail "'$program' wrote '$output', which is not the reason in one line"
  fi
done

start_daemon simulated
corvanectl images --store "$source/profiles/images.plist" >/dev/null
corvanectl images --save "$work/saved" >"$work/paths"

# follows COMMAND...: it saves the images into $work/out, and prints the notification of a new card.
follows() {
  rm -rf "$work/out" && mkdir "$work/out"
  mkfifo "$work/input"
  "$@" >"$work/output" 2>&1 <"$work/input" &
  local client=$!
  exec 3>"$work/input"
  eventually hears_of_a_new_card
  exec 3>&-
  wait "$client" || fail "it ended with status $?: $(cat "$work/output")"
  rm "$work/input"
  same 'the images' "$(cat $(sort "$work/paths") | md5sum)" "$(cat "$work"/out/* | md5sum)"
}

hears_of_a_new_card() {
  card=$((card + 1))
  corvanectl profile set Telephony.SIMIdentity "$card" >/dev/null
  sleep 0.2
  grep -q '^com.norvane.mobile.keelhold.phone_number_changed$' "$work/output"
}

card=8901260123456789012
step='C'
follows "$work/client_c" "$work/out"
step='C++'
same 'the first run' 'run 1' "$("$work/client_cpp" 2>&1)"
same 'the second run' 'run 2' "$("$work/client_cpp" 2>&1)"
step='Python'
follows /usr/bin/python3 "$work/client.py" "$work/out" 5
must /usr/bin/python3 "$source/client/python/test_corvane.py"
must mypy --strict --cache-dir=/dev/null "$PYTHONPATH/corvane" "$source/examples/client.py"
step='the raw wire'
same 'the answers' "version $version"$'\nimages stored under 9.1' "$(/usr/bin/python3 "$work/raw_wire.py" 2>&1)"

end_daemon
[ $failures -eq 0 ]
