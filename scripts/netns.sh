# Two network namespaces joined by a veth pair: the controller's and the access
# point's. The daemon binds UDP 6650 on every address, so it cannot share a
# stack with a controller. Every address lives inside these namespaces only
# (198.18.0.0/15 is set aside for such test networks). Sourced by the demo and
# the end-to-end tests.
TOVRIN_CTL_IP=198.18.0.1
TOVRIN_AP_IP=198.18.0.2

# Sets TOVRIN_NS_CTL and TOVRIN_NS_AP; returns non-zero, saying why, when
# namespaces cannot be made here.
tovrin_netns_up() {
    local tag=${1:-$$}
    TOVRIN_NS_CTL="tvr-ctl-$tag"
    TOVRIN_NS_AP="tvr-ap-$tag"
    if [ "$(id -u)" -ne 0 ]; then
        echo "network namespaces need root (run as root, or with sudo)" >&2
        return 1
    fi
    if ! ip netns add "$TOVRIN_NS_CTL" 2>/dev/null; then
        echo "cannot create network namespaces here (ip netns add failed)" >&2
        return 1
    fi
    ip netns add "$TOVRIN_NS_AP" || { tovrin_netns_down; return 1; }
    ip -n "$TOVRIN_NS_CTL" link add veth-ctl type veth peer name veth-ap netns "$TOVRIN_NS_AP" &&
    ip -n "$TOVRIN_NS_CTL" addr add "$TOVRIN_CTL_IP/30" dev veth-ctl &&
    ip -n "$TOVRIN_NS_AP" addr add "$TOVRIN_AP_IP/30" dev veth-ap &&
    ip -n "$TOVRIN_NS_CTL" link set veth-ctl up &&
    ip -n "$TOVRIN_NS_AP" link set veth-ap up &&
    ip -n "$TOVRIN_NS_CTL" link set lo up &&
    ip -n "$TOVRIN_NS_AP" link set lo up || { tovrin_netns_down; return 1; }
}

# Removes both namespaces (the veth pair goes with them); safe to call twice.
tovrin_netns_down() {
    [ -n "${TOVRIN_NS_CTL:-}" ] && ip netns del "$TOVRIN_NS_CTL" 2>/dev/null
    [ -n "${TOVRIN_NS_AP:-}" ] && ip netns del "$TOVRIN_NS_AP" 2>/dev/null
    return 0
}
