#!/usr/bin/env bash
# Drives corvanectl against a daemon on a simulated phone. Usage: corvanectl_test.sh BIN_DIR
source "$(dirname "$0")/support/corvanectl.sh"

images=$source/profiles/images.plist
stored=$CORVANE_ROOT/private/var/mobile/Library/cvd/regulatory_images/regulatory_images.plist

step='wrong usage'
expect 0 'corvanectl [0-9]*.[0-9]*.[0-9]*' '' corvanectl --version
expect 2 '' 'corvanectl: A subcommand is required; see corvanectl --help' corvanectl
expect 2 '' 'corvanectl: --timeout: not a number from *' corvanectl notifications --timeout nan
expect 2 '' 'corvanectl: --count: not a number from *' corvanectl notifications --count 99999999999999999999
expect 2 '' 'corvanectl: unknown argument: bogus' corvanectl bogus
expect 2 '' 'corvanectl: *--json excludes --xml' corvanectl show --json --xml "$images"
expect 2 '' 'corvanectl: --save: must not be empty' corvanectl images --save ''
expect 2 '' 'corvanectl: 12a: not a process id' corvanectl entitlements 12a

step='no daemon'
expect 3 '' "corvanectl: no daemon: $CORVANE_ROOT/run/*" corvanectl images
expect 3 '' 'corvanectl: no daemon: *.admin: No such file or directory' corvanectl images --store "$images"
expect 3 '' 'corvanectl: no daemon: *' corvanectl notifications

step='a binary copy of a property list'
corvanectl show --binary "$images" >"$work/images.binary"
expect 0 'bplist00' '' head -c 8 "$work/images.binary"
expect 0 '' '' cmp <(corvanectl show --xml "$images") <(corvanectl show --xml "$work/images.binary")

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
  expect 0 '*' '' corvanectl profile --profile "$1" set --json Value "$2"
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
expect 0 'set Made.On.TheWay in */link.plist' '' corvanectl profile set Made.On.TheWay yes
expect 0 $'{\n  "Made": {\n    "On": {\n      "TheWay": "yes"\n*' '' corvanectl show "$work/xml.plist"
expect 2 '' '*: "Value" is not a dictionary' corvanectl profile set Value.Key text
expect 0 'removed Value in */link.plist' '' corvanectl profile unset Value
expect 0 '*' '' corvanectl profile unset Made.On
expect 0 $'{\n  "Made": {}\n}' '' corvanectl show "$work/xml.plist"
expect 0 '640 regular file' '' stat -c '%a %F' "$work/xml.plist"
expect 0 '*symbolic link' '' stat -c %F "$work/link.plist"
export CORVANE_PROFILE=$work/profile.plist

step='the regulatory images'
expect 0 '*' '' corvanectl profile set --json Entitlements '{"4711": {"dial": true}}'
start_daemon simulated
expect 5 '' 'corvanectl: no regulatory images are stored' corvanectl images
expect 0 'stored the images in */images.plist; data values: 2' '' corvanectl images --store "$images"
expect 0 $'{\n  "ProductVersion": "9.1"\n  "RegulatoryImages": {\n*"Image": <139 bytes: *' '' corvanectl images
expect 0 $'{\n "ProductVersion": "9.1",\n*"$data": "iVBOR*' '' corvanectl images --json
expect 0 '<?xml *<key>ProductVersion</key>*' '' corvanectl images --xml
mkdir "$work/saved"
expect 0 $'*/RegulatoryImages-Images-0-Image.png\n*-1-Image.png' '' corvanectl images --save "$work/saved"

step='is it well'
log=$CORVANE_ROOT/var/mobile/Library/Logs/corvaned/corvaned.log
lines_before=$(wc -l <"$log")
expect 0 'corvaned [0-9]*.[0-9]*.[0-9]* answered in [0-9]*.[0-9][0-9][0-9] ms' '' corvanectl ping
expect 0 $'{\n "Seconds": [0-9]*,\n "Version": "*"\n}' '' corvanectl ping --json
expect 0 "$lines_before *" '' wc -l "$log"
expect 0 $'Platform  simulated\n*\nServices *Public *Admin *\n*\n\nClosed *Public *\nbad frame *0 *0 *0\n*\n\nErrors *' '' corvanectl status
expect 0 '*"DiskCopyWorks": true,*' '' corvanectl status --json

step='metrics'
# metric NAME-WITH-LABELS: its value now.
metric() { corvanectl status --openmetrics | grep -F -- "$1 " | sed 's/.* //'; }
requests=$(metric 'corvaned_requests_total{service="public"}')
errors=$(metric 'corvaned_request_errors_total{service="admin",code="1"}')
expect 0 '*' '' corvanectl images
expect 1 '' '*error 1*' corvanectl device $(seq 65)
expect 0 "$((requests + 1))" '' metric 'corvaned_requests_total{service="public"}'
expect 0 "$((errors + 1))" '' metric 'corvaned_request_errors_total{service="admin",code="1"}'
cat >"$work/check_metrics.py" <<'PYTHON'
import re, sys
types, seen = {}, None
lines = sys.stdin.read().split("\n")
assert lines[-2:] == ["# EOF", ""], lines[-2:]
for line in lines[:-2]:
    if line.startswith("# HELP "): seen = line.split(" ", 3)[2]
    elif line.startswith("# TYPE "):
        name, kind = line.split(" ")[2:]
        assert name == seen and name not in types and not name.endswith("_total"), line
        types[name] = kind
    else:
        label = r'[a-z]+="(?:[^"\\\n]|\\["\\n])*"'
        sample = re.fullmatch(r"([a-z_]+)(?:\{%s(?:,%s)*\})? [0-9]+" % (label, label), line)
        expected = seen + "_total" if types[seen] == "counter" else seen
        assert sample and sample[1] == expected, line
assert len(types) > 20, types
PYTHON
expect 0 '' '' eval 'corvanectl status --openmetrics | python3 "$work/check_metrics.py"'

step='what the daemon knows of the device'
expect 0 $'DeviceType\nBasebandClass  1\n*ProductType    Pocket9,1\n*' '' corvanectl device
expect 5 $'*ProductVersion  9.1' 'corvanectl: no answer: This; That' corvanectl device ProductVersion This That
expect 0 $'*PhoneNumber     +15550100123\n*Queries\nBootloaderVersion  *5.02.00\n*' '' corvanectl radio
expect 5 '' 'corvanectl: there is no carrier bundle' corvanectl carrier
bundle="$CORVANE_ROOT/private/var/mobile/Library/Carrier Bundle.bundle"
mkdir "$bundle"
echo '<plist><dict><key>CarrierName</key><string>Example</string></dict></plist>' >"$bundle/Info.plist"
expect 0 $'{\n "CarrierName": "Example"\n}' '' corvanectl carrier --json

step='a page of the images'
page=$work/page.html
mark='{"$data":"iVBORw0KGgoAAAANSUhEUgAAAEAAAAAw"}'
hostile='"><script>alert(1)</script>'
svg=$(printf '<?xml version="1.0"?><svg><script/></svg>' | base64)
cp "$stored" "$work/stored.plist"
expect 0 '*' '' corvanectl profile --profile "$stored" set --json RegulatoryImages "[
  {\"Image\": $mark, \"Name\": \"${hostile//\"/\\\"}\", \"Region\": \"<EU>\"},
  {\"Image\": {\"\$data\": \"$svg\"}},
  {\"Image\": {\"\$data\": \"iVBORw==\"}, \"Name\": \"cut short\"}, {\"\$data\": \"AAEC\"}]"
expect 0 "wrote $page" '' corvanectl images --page "$page"
expect 0 '' '' eval 'corvanectl images --page - | cmp - "$page"'
expect 0 '2' '' grep -c '<img ' "$page"
expect 0 '*alt="&quot;&gt;&lt;script&gt;*src="data:image/png;base64,iVBOR*"data:image/svg+xml;*' '' cat "$page"
expect 0 '*<p>2 images, 2 data values that cannot be shown,*<dd>&lt;EU&gt;</dd>*64 &times; 48 pixels, 24 bytes*cut short or damaged*not shown here*' '' cat "$page"
expect 1 '' '' grep -E '<script|src="[^d]|url\(|@import|https?:' "$page"
style_hash=$(python3 -c 'import base64, hashlib, re, sys
style = re.search("<style>(.*?)</style>", sys.stdin.read(), re.DOTALL).group(1)
print(base64.b64encode(hashlib.sha256(style.encode()).digest()).decode())' <"$page")
expect 0 "*default-src 'none'; img-src data:;*style-src 'sha256-$style_hash'*" '' cat "$page"
mv "$work/stored.plist" "$stored"

step='a request that the daemon cannot read'
deep=$(printf '[%.0s' $(seq 120))$(printf ']%.0s' $(seq 120))
expect 0 '*' '' corvanectl profile --profile "$work/xml.plist" set --json Deep "$deep"
expect 1 '' 'corvanectl: the daemon answered error 1: Unexpeceted parameter' \
  corvanectl images --store "$work/xml.plist"

step='saving below hostile keys'
x300=$(printf 'x%.0s' $(seq 300)) x183=$(printf 'x%.0s' $(seq 183))
png='{"$data":"iVBORw=="}' other='{"$data":"AA=="}'
expect 0 '*' '' corvanectl profile --profile "$stored" set --json RegulatoryImages "{
  \"../../up\":$png, \"..\":$other, \"a/b\":$other, \"a.b\":$other, \"a_b-2\":$other, \"line\nfeed\":$png,
  \"\":$other, \"$x300\":$other, \"$x300 and more\":$other, \"é\":[$png, {\"/\":$png}]}"
expect 0 '*' '' corvanectl profile --profile "$stored" set --json '' "$other"
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
ln -sf "$work/target" "$work/saved/deep/deeper/_.bin"
expect 1 '' 'corvanectl: could not write */_.bin: *' corvanectl images --save "$work/saved/deep/deeper"

step='entitlements'
expect 0 $'{\n  "dial": true\n}' '' corvanectl entitlements 4711
expect 5 '' 'corvanectl: process 1 has no entitlements' corvanectl entitlements 1

step='closed descriptors'
expect 1 '' 'corvanectl: standard output: Bad file descriptor' without_output corvanectl images
expect 1 '' 'corvanectl: standard output: Bad file descriptor' without_output corvanectl entitlements 4711
expect 1 '' '' without_input without_output without_errors corvanectl images
expect 0 'stored *' '' without_input without_errors corvanectl images --store "$images"
expect 0 '*"ProductVersion"*' '' without_input without_errors corvanectl images

step='notifications'
"$bin/corvanectl" notifications >"$work/heard" 2>"$work/watcher_errors" &
watcher=$!
insert_sim_and_hear() {
  corvanectl profile set Telephony.SIMIdentity "$RANDOM" >/dev/null
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
