#!/usr/bin/env bash
# cmake --install --prefix /usr (as the Debian package does) puts tovrin.lua in
# the folder this machine's Wireshark names for global Lua plugins, and
# tovrin-pcap in /usr/bin.   install_dirs.sh BUILD_DIR
set -u
build=$1
command -v tshark >/dev/null || { echo "skipped: tshark is not installed"; exit 77; }
tmp=$(mktemp -d /tmp/tovrin-install.XXXXXX)
trap 'rm -rf "$tmp"' EXIT
want=$(HOME="$tmp" tshark -G folders 2>/dev/null | awk -F'\t' '/^Global Lua Plugins:/ {print $2}')
[ -n "$want" ] || { echo "FAILED: tshark -G folders names no global Lua plugin folder"; exit 1; }
DESTDIR="$tmp/root" cmake --install "$build" --prefix /usr --component wire >/dev/null || exit 1
fails=0
for f in "$want/tovrin.lua" /usr/bin/tovrin-pcap; do
    if [ -e "$tmp/root$f" ]; then echo "ok: $f"; else echo "FAILED: no $f"; fails=1; fi
done
[ "$fails" = 0 ] || { echo "installed:"; (cd "$tmp/root" && find . -type f); }
exit "$fails"
