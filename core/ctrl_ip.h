#pragma once
// The controller address and the node's identity.
#include <cstddef>
#include <cstdint>

// Records the address in payload bytes 0-3 (network order) and the node's
// identity, then sets the link socket up. Returns 0; ends the process with
// status 1 when the MAC cannot be read or the socket cannot be set up.
int tovrin_proc_set_ctrl_ip(const uint8_t *payload);
// Copies out drav_ip and the link status.
void tovrin_get_drav(uint32_t *ip, int32_t *status);
// Parses six hex pairs, each optionally followed by ':', from at most len
// characters of text. 0 and mac filled, or -1 when the text is of another form.
int tovrin_parse_mac(const char *text, std::size_t len, uint8_t mac[6]);
