#!/usr/bin/env bash
# --version and --help of every program: they print and exit 0 at once, and
# the daemon opens nothing for them; any other argument leaves the daemon as it is.
# shellcheck source=tests/e2e/lib.sh
. "$(dirname "$0")/lib.sh"

# TOVRIN_PROJECT_VERSION: the version the build was configured with.
want=${TOVRIN_PROJECT_VERSION:?}
progs=("tovrin $TOVRIN_BIN" "tovrinctl $TOVRINCTL_BIN" "drav-sim $DRAVSIM_BIN")
[ -n "${TOVRIN_PCAP_BIN:-}" ] && progs+=("tovrin-pcap $TOVRIN_PCAP_BIN")
for prog in "${progs[@]}"; do
    read -r name bin <<<"$prog"
    out=$("$bin" --version); rc=$?
    check_eq "$name --version exits 0" "$rc" 0
    check "$name --version says '$name $want' first (got '${out%%$'\n'*}')" \
        grep -qE "^$name ${want//./\\.}(\+git\.[0-9a-z.]+)?$" <<<"${out%%$'\n'*}"
    out=$("$bin" --help); rc=$?
    check_eq "$name --help exits 0" "$rc" 0
    check "$name --help prints its usage" grep -qi "^usage: $name" <<<"$out"
done

# The daemon's information options open no endpoint and no log, whatever follows them.
mkdir -p "$WORK/logs"
for args in "--version" "--help" "--version --bogus" "-h"; do
    read -ra argv <<<"$args"
    VK_LOG_DIR="$WORK/logs" "$TOVRIN_BIN" "${argv[@]}" >/dev/null
    check "tovrin $args creates neither the IPC root nor a log" \
        test ! -e "$VK_IPC_ROOT" -a -z "$(ls -A "$WORK/logs")"
done

# Another argument is ignored: the daemon starts and answers as without it.
"$TOVRIN_BIN" --bogus extra >"$WORK/tovrin.out" 2>&1 &
E2E_PIDS+=($!)
for ((i = 0; i < 200; i++)); do [ -S "$VK_IPC_ROOT/vk/ipc/tovrin" ] && break; sleep 0.05; done
check_eq "tovrin --bogus runs the daemon" "$(ctl status)" "controller 0.0.0.0 link DOWN"

e2e_done
