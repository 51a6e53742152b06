#pragma once
// The link record: the one global that holds the whole state of the link to
// the controller, its transport sub-record and the outgoing message.
#include <netinet/in.h>

#include <cstdint>

#include "link/wire.h"
#include "relay/app_msg.h"

inline constexpr std::size_t TOVRIN_SERIAL_LEN = 16;
inline constexpr std::size_t TOVRIN_MAC_LEN = 6;
inline constexpr std::size_t TOVRIN_NAME_LEN = 64;
inline constexpr std::size_t TOVRIN_KEY_MAX = 20;

// An outgoing data message. One heap block, owned by the send queue from
// tovrin_new_send_msg until tovrin_complete_send_msg frees it.
struct tovrin_msg_t {
    tovrin_hdr_t hdr;
    uint8_t data[TOVRIN_MAX_PAYLOAD];
    int32_t data_len;
    tovrin_msg_t *next;
    tovrin_msg_t **prev;
    tovrin_app_msg_t app_hdr;
};

// Transport sub-record. The first three fields mirror those of tovrin_msg_t.
struct tovrin_comm_t {
    tovrin_hdr_t rx_hdr;                 // header of the last accepted data fragment
    uint8_t rx_buf[TOVRIN_MAX_PAYLOAD];  // reassembly buffer
    int32_t rx_len;
    int32_t tx_seq;      // last AP transaction number given
    tovrin_msg_t *head;  // send queue
    tovrin_msg_t **tail;
    int32_t msg_cnt;
    tovrin_hdr_t ack_hdr;  // acknowledgement template
    int32_t ack_wait;      // 1 while the head's retry timer is armed
    int32_t rx_withheld;   // 1: rx_hdr's message was complete but not acknowledged
};

struct tovrin_link_t {
    uint8_t serial_num[TOVRIN_SERIAL_LEN];
    uint8_t vap_mac[TOVRIN_MAC_LEN];
    int32_t name_len;
    char name[TOVRIN_NAME_LEN];
    uint32_t ka_rate;  // keepalive interval, ms
    int32_t reg_param;
    uint32_t status_msg_id;  // keepalive requests sent since start
    uint32_t ka_miss_cnt;
    tovrin_comm_t comm;
    int32_t status;        // 1 UP, 0 DOWN
    uint32_t drav_ip;      // network order; 0 = not configured
    uint32_t mob_ctrl_ip;  // network order; 0 = none
    uint32_t reg_extra;
    int32_t mode;
    struct sockaddr_in peer_addr;
    struct sockaddr_in local_addr;  // port 6650 exactly while a socket is set up
    int32_t sock;
    int32_t reg_interval;  // ms
    uint32_t keylen;
    uint8_t key[TOVRIN_KEY_MAX];
    int32_t encrypt_state;  // 1 encrypts new outgoing messages
};

// The link record, defined in link/record.cpp; start values from
// tovrin_init_struct (core/startup.cpp).
extern tovrin_link_t tovrin_gbl;
