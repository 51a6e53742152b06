#!/usr/bin/env bash
# Reads the committed captures with the dissector and with tovrin-pcap and
# compares what they print with the golden files in golden/; fails on any
# difference, on any Lua error, and on any warning or worse in the session
# captures (the malformed capture must show its expert notes, never a Lua
# error nor a dissector exception). Then feeds both tools mangled datagrams.
#   check.sh TOVRIN_PCAP_BIN            compare
#   check.sh TOVRIN_PCAP_BIN --update   rewrite golden/ from the current tools
set -u
here=$(cd "$(dirname "$0")" && pwd)
pcap_bin=$1
update=${2:-}
lua="$here/../../tools/wireshark/tovrin.lua"
key=000102030405060708090a0b0c0d0e0f
work=$(mktemp -d /tmp/tovrin-captures.XXXXXX)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/home" "$work/out"
failed=0
fail() { echo "FAILED: $*"; failed=1; }

# Fixed time zone, no user preferences or plugins, relative file names.
tshark_lua() {
    (cd "$here" && TZ=UTC HOME="$work/home" WIRESHARK_CONFIG_DIR="$work/home" \
        tshark -X "lua_script:$lua" -2 "$@" 2>&1 | grep -v '^Running as user')
}

have_tshark=1
command -v tshark >/dev/null || have_tshark=0
# A dissector installed in Wireshark's plugin folders is loaded before this one,
# which then steps aside: check only when the installed copy is this very file.
installed=$(HOME="$work/home" tshark -G plugins 2>/dev/null | awk -F'\t' '$1 == "tovrin.lua" {print $4}')
if [ "$have_tshark" = 1 ] && [ -n "$installed" ] && ! cmp -s "$installed" "$lua"; then
    echo "note: $installed differs from the source and is loaded first: the dissector is not checked"
    have_tshark=0
fi

for cap in session-any.pcap session-eth.pcapng session-sll.pcap malformed.pcap; do
    base=${cap%.*}
    (cd "$here" && "$pcap_bin" --datagrams "$cap") >"$work/out/$base.txt"
    (cd "$here" && "$pcap_bin" --key "$key" "$cap") >"$work/out/$base.key.txt"
    [ "$have_tshark" = 1 ] || continue
    tshark_lua -r "$cap" -V >"$work/out/$base.tshark"
    # A Lua error or a dissector exception shows in the text; the filter sees them as expert errors too.
    line=$(grep -m1 -iE 'lua error|Malformed Packet' "$work/out/$base.tshark") && fail "$cap: $line"
    [[ $cap != session-* ]] || [ "$(tshark_lua -r "$cap" -Y '!tovrin || _ws.expert.severity >= warning' | wc -l)" = 0 ] ||
        fail "$cap: a datagram not tovrin, or an expert note of a warning or worse"
done
(cd "$here" && "$pcap_bin" --json --key "$key" session-any.pcap) >"$work/out/session-any.json"
# Mangled datagrams from fixed seeds: never a Lua error, never a failure.
for seed in 1 2; do
    python3 "$here/make_malformed.py" --noise "$seed" 3000 "$work/noise.pcap"
    "$pcap_bin" --datagrams --key "$key" "$work/noise.pcap" >/dev/null || fail "noise $seed: tovrin-pcap failed"
    [ "$have_tshark" = 1 ] || continue
    tshark_lua -r "$work/noise.pcap" -V >"$work/noise.tshark"
    line=$(grep -m1 -iE 'lua error|Malformed Packet' "$work/noise.tshark") && fail "noise $seed: $line"
done
# The malformed capture is the one its table writes.
python3 "$here/make_malformed.py" "$work/malformed.pcap" && cmp -s "$work/malformed.pcap" "$here/malformed.pcap" ||
    fail "malformed.pcap is not what make_malformed.py writes"
python3 "$here/make_malformed.py" --frames "$work/frames.pcap"
"$pcap_bin" --datagrams "$work/frames.pcap" >"$work/out/frames.txt"
# tovrin-pcap's command lines: what each prints and its exit status.
head -c 600 "$here/session-sll.pcap" >"$work/cut.pcap"
while IFS= read -r args; do
    (cd "$here" && eval "\"\$pcap_bin\" $args") >"$work/o" 2>&1
    printf '$ tovrin-pcap %s\n= %s\n' "$args" "$?"
    sed "s#$work#WORK#g" "$work/o"
done >"$work/out/cli.txt" <<'EOF'
--version | sed 's/ .*//'
--help

session-eth.pcapng session-eth.pcapng
--bogus session-eth.pcapng
--key 0011 session-eth.pcapng
--key 0g0102030405060708090a0b0c0d0e0f session-eth.pcapng
session-eth.pcapng --key
--port 0 session-eth.pcapng
--port 6651 session-eth.pcapng
none.pcap
"$work/cut.pcap"
--no-summary --full - <session-sll.pcap
EOF
# The Ethernet capture's dissection differs from the cooked one below UDP only.
rm -f "$work/out/session-eth.tshark" "$work/out/session-sll.tshark"

if [ "$update" = --update ]; then
    mkdir -p "$here/golden"
    cp "$work/out/"* "$here/golden/"
    echo "golden files rewritten"
    exit "$failed"
fi
skip=()
[ "$have_tshark" = 1 ] || { skip=(-x '*.tshark'); echo "the dissector was not checked"; }
diff -ru "${skip[@]}" "$here/golden" "$work/out" >"$work/diff" || { fail "what the tools print differs from golden/:"; head -60 "$work/diff"; }
[ "$failed" = 0 ] && echo "captures read as recorded"
exit "$failed"
