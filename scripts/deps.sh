# Debian packages the build, the tests and the demo need. Sourced by the scripts.
TOVRIN_DEPS=(g++ cmake make libgtest-dev libssl-dev libmbedtls-dev openssl iproute2 valgrind procps python3
             libpcap-dev tcpdump tshark wireshark-common jq strace)
# Installed without their recommendations: prometheus brings promtool, which
# checks tovrinctl's exposition; the server itself is never run.
TOVRIN_DEPS_BARE=(prometheus)

# Installs the missing ones with apt-get when run as root; otherwise says what to install.
tovrin_install_deps() {
    local missing=() bare=()
    for p in "${TOVRIN_DEPS[@]}"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
    done
    for p in "${TOVRIN_DEPS_BARE[@]}"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || bare+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && [ ${#bare[@]} -eq 0 ] && return 0
    missing+=("${bare[@]}")
    if [ "$(id -u)" -eq 0 ]; then
        echo "installing: ${missing[*]}"
        DEBIAN_FRONTEND=noninteractive apt-get update -qq
        [ ${#bare[@]} -eq 0 ] || DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${bare[@]}" >/dev/null
        DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
    else
        echo "missing packages: ${missing[*]} (run as root, or: sudo apt-get install ${missing[*]})" >&2
        return 1
    fi
}
