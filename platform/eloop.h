#pragma once
// Event loop service: read and write sockets and one-shot timeouts, one thread.
// Equal expiry times run in the order they were registered. Timeouts due at
// an instant run before the sockets ready at that instant. Handlers may
// register or cancel sockets and timeouts, themselves included.

typedef void (*vk_eloop_sock_handler)(int sock, void *eloop_ctx, void *sock_ctx);
typedef void (*vk_eloop_timeout_handler)(void *eloop_ctx, void *user_ctx);
typedef void (*vk_eloop_signal_handler)(int sig, void *ctx);

// A context of VK_ELOOP_ANY matches any context when cancelling.
#define VK_ELOOP_ANY ((void *)-1)

// Prepares the loop; user_data is unused. Returns 0, or -1 when it cannot.
int vk_eloop_init(void *user_data);
// Calls handler(sock, eloop_ctx, sock_ctx) each time sock is readable. 0 or -1.
int vk_eloop_register_read_sock(int sock, vk_eloop_sock_handler handler, void *eloop_ctx, void *sock_ctx);
void vk_eloop_unregister_read_sock(int sock);
// Calls handler(sock, eloop_ctx, sock_ctx) each time sock is writable, until it
// is unregistered: register only while something waits for room. 0 or -1.
int vk_eloop_register_write_sock(int sock, vk_eloop_sock_handler handler, void *eloop_ctx, void *sock_ctx);
void vk_eloop_unregister_write_sock(int sock);
// One-shot: handler(eloop_ctx, user_ctx) once, secs + usecs from now. 0 or -1.
int vk_eloop_register_timeout(unsigned int secs, unsigned int usecs, vk_eloop_timeout_handler handler, void *eloop_ctx,
                              void *user_ctx);
// Removes every pending timeout of handler whose contexts match; returns how many.
int vk_eloop_cancel_timeout(vk_eloop_timeout_handler handler, void *eloop_ctx, void *user_ctx);
// Calls handler(sig, ctx) from the loop, never inside the signal's own
// context, after sig arrived (several arrivals between two rounds make one
// call). A null handler ignores sig. SIGTERM and SIGINT always end the run and
// cannot be taken. vk_eloop_init forgets every registration. 0 or -1.
int vk_eloop_register_signal(int sig, vk_eloop_signal_handler handler, void *ctx);
// Runs callbacks until vk_eloop_terminate() is called or SIGTERM/SIGINT arrives.
void vk_eloop_run(void);
void vk_eloop_terminate(void);
