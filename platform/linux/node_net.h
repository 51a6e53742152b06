#pragma once
// MAC lookup in a directory laid out like /sys/class/net, kept apart so that
// tests can hand it a tree of their own.

// Writes the address of iface (or, when iface is null, of wlan0, or when wlan0
// does not exist of the first interface by name other than lo with a non-zero
// address) as twelve lower-case hex digits and a NUL into buf of size bytes.
// 0, or -1 when size < 13 or no address is found.
int vk_node_mac_from_net(const char *net_dir, const char *iface, char *buf, int size);
