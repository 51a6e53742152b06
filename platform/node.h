#pragma once
// Node information service.

// Writes the MAC of virtual AP vap as twelve hex digits and a NUL into buf,
// using at most size bytes. 0 on success, non-zero when no address is found.
int vk_get_node_vap_mac(int vap, char *buf, int size);
// Writes the serial number, at most size bytes, the rest zero. 0 or -1.
int vk_get_node_serial_num(char *buf, int size);
