/**
 * @file
 * A descriptor and its handler, as the bus connection offers them to whoever runs the event loop.
 */
#ifndef LIBUBOX_ULOOP_H
#define LIBUBOX_ULOOP_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ULOOP_READ (1 << 0)
#define ULOOP_WRITE (1 << 1)
#define ULOOP_EDGE_TRIGGER (1 << 2)
#define ULOOP_BLOCKING (1 << 3)

struct uloop_fd;

typedef void (*uloop_fd_handler)(struct uloop_fd *u, unsigned int events);

struct uloop_fd {
    uloop_fd_handler cb; /**< to be called when the descriptor is readable */
    int fd;              /**< -1 while there is none */
    bool eof;
    bool error;
    bool registered;
    uint8_t flags;
};

#ifdef __cplusplus
}
#endif

#endif
