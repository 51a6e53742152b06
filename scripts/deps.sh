# Debian packages the build, the tests and the demo need. Sourced by the scripts.
TOVRIN_DEPS=(g++ cmake make libgtest-dev libssl-dev openssl iproute2 valgrind procps python3
             libpcap-dev tcpdump tshark wireshark-common)

# Installs the missing ones with apt-get when run as root; otherwise says what to install.
tovrin_install_deps() {
    local missing=()
    for p in "${TOVRIN_DEPS[@]}"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if [ "$(id -u)" -eq 0 ]; then
        echo "installing: ${missing[*]}"
        DEBIAN_FRONTEND=noninteractive apt-get update -qq
        DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
    else
        echo "missing packages: ${missing[*]} (run as root, or: sudo apt-get install ${missing[*]})" >&2
        return 1
    fi
}
