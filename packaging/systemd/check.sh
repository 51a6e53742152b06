#!/usr/bin/env bash
# Checks the systemd unit as cmake --install writes it: systemd-analyze verify
# says nothing about it (it exits 0 on unknown keys, so any output fails), and
# its overall exposure under systemd-analyze security is at most 2.0.
#   packaging/systemd/check.sh BUILD_DIR
set -u
build=$1
command -v systemd-analyze >/dev/null || { echo "skipped: no systemd-analyze"; exit 77; }
stage=$(mktemp -d /tmp/tovrin-unit.XXXXXX)
trap 'rm -rf "$stage"' EXIT
cmake --install "$build" --prefix "$stage/usr" >/dev/null || { echo "FAILED: cmake --install"; exit 1; }
unit=$stage/usr/lib/systemd/system/tovrin.service
fails=0

# The Documentation= pages are looked up among the installed ones.
man_opt=(--man=yes)
command -v man >/dev/null || man_opt=(--man=no)
out=$(cd "$stage" && MANPATH=$stage/usr/share/man systemd-analyze verify "${man_opt[@]}" "$unit" 2>&1)
if [ -n "$out" ]; then echo "FAILED: systemd-analyze verify:"; echo "$out"; fails=$((fails + 1)); fi

grep -qx "ExecStart=$stage/usr/sbin/tovrin" "$unit" || { echo "FAILED: ExecStart is not the installed daemon"; fails=$((fails + 1)); }

sec=$(systemd-analyze security --offline=true "$unit" 2>&1)
level=$(sed -nE 's/.*Overall exposure level for tovrin.service: ([0-9.]+).*/\1/p' <<<"$sec")
if [ -z "$level" ]; then
    echo "FAILED: no exposure level:"; echo "$sec"; fails=$((fails + 1))
elif ! awk -v l="$level" 'BEGIN { exit !(l <= 2.0) }'; then
    echo "FAILED: exposure $level above 2.0:"; grep '✗' <<<"$sec"; fails=$((fails + 1))
else
    echo "ok: exposure $level"
fi
[ "$fails" -eq 0 ] && echo "ok: the unit verifies"
[ "$fails" -eq 0 ]
