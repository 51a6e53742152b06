#pragma once
// Datagram bursts: the fragments of one transmission go to the kernel in one
// sendmmsg, and one recvmmsg drains what waits on the socket. Where either
// call is missing (ENOSYS: a kernel or C library without it) the burst goes
// one datagram per call from then on; the datagrams on the wire are the same.
//
// Segmentation offload (UDP_SEGMENT) would save the kernel a little more, but
// a capture on the sending host, or on a veth peer, would then show one
// unsegmented super-datagram where the controller gets the fragments: the
// capture tools and anyone reading a capture must see what goes on the wire.
#include <sys/socket.h>

#include "link/wire.h"

// Most datagrams read per wakeup: the fragments of the largest message.
inline constexpr unsigned TOVRIN_RECV_BURST = TOVRIN_MAX_FRAGS;

// Set for good when sendmmsg / recvmmsg answered ENOSYS.
extern bool tovrin_sendmmsg_missing;
extern bool tovrin_recvmmsg_missing;

// Sends msgs[0..n) in order, each at most once, going on past a datagram the
// kernel refuses (as single sends would). Returns how many were sent.
unsigned tovrin_send_burst(int sock, mmsghdr *msgs, unsigned n);
// Reads up to n waiting datagrams into msgs (each with one iovec of
// TOVRIN_MAX_DGRAM bytes and a sockaddr_in name); msg_len and msg_namelen
// tell each one's size and sender. Returns how many, or -1 with errno.
int tovrin_recv_burst(int sock, mmsghdr *msgs, unsigned n);
