/**
 * @file
 * URLs: split into their parts, resolved to one socket address, and text encoded for their queries.
 *
 *     url *u = url_parse("https://192.0.2.1:8443/inform");
 *     if (u && url_resolve(u, NULL) == 0) connect(fd, u->ai.ai_addr, u->ai.ai_addrlen);
 *     url_destroy(u);
 *
 * Known schemes and their ports: "http" 80, "https" 443, "stun" 3478, "ws" 80, "wss" 443. Nothing is kept between
 * calls.
 */
#ifndef VELA_NET_URL_H
#define VELA_NET_URL_H

/* A strict C11 compiler shows struct addrinfo only on demand. */
#if defined(__STRICT_ANSI__) && !defined(_POSIX_C_SOURCE) && !defined(_XOPEN_SOURCE) && !defined(_DEFAULT_SOURCE) &&   \
    !defined(_GNU_SOURCE)
#define _POSIX_C_SOURCE 200809L
#endif

#include <netdb.h>
#include <netinet/in.h>
#include <stdint.h>
#include <sys/socket.h>
#include <vela/core/api.h>

#ifndef AI_PASSIVE
#error "struct addrinfo is hidden: compile with -std=gnu11, or define _POSIX_C_SOURCE as 200809L before any header"
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct url url;
/** A URL. Every text is a heap string of its own that belongs to the record. */
struct url {
    char *url;      /**< normalized form; the port only where it is not the scheme's */
    char *raw;      /**< what was parsed */
    char *scheme;   /**< in lower case */
    char *userinfo; /**< what stands before "@", as it is; null when there is none */
    char *host;     /**< name or address, as it is written; an IPv6 address without its brackets */
    uint16_t port;  /**< 1 to 65534 */
    char *path;     /**< from the first "/", ";" or "?" to the end, with query and fragment; "/" when there is none */
    int32_t is_https;
    int32_t is_ipv6;    /**< 1 where the host is taken for an IPv6 address */
    struct addrinfo ai; /**< what url_resolve() chose; all zero before. Its address is sa, its name is not to be used */
    __attribute__((aligned(4))) uint8_t sa[sizeof(struct sockaddr_in6)];
    uint32_t aux; /**< the caller's; url_resolve() clears it */
};

/**
 * Finds a scheme's port.
 *
 * @param scheme  in any case
 * @param port    receives it in host order; may be null
 * @return 0; -1, with nothing written, for an unknown scheme or null
 */
VELA_API int url_scheme2port(const char *scheme, uint16_t *port);

/**
 * Splits a URL of 1 to 1024 characters: [scheme "://"] [userinfo "@"] host [":" port] [path].
 *
 * Without a scheme it is "http", and there can be no ":" anywhere. The first "@" ends the user information, so one in a
 * path must be encoded. "#" is nothing special: a fragment belongs to the path, or to the host where there is no path.
 * A host of only digits, "a" to "f" and punctuation is an IPv6 address unless it has dots as an IPv4 address has, also
 * "cafe"; one without brackets cannot be followed by a port. A port that is not a number from 1 to 65534 of at most
 * five digits is ignored: the scheme's applies.
 *
 * @return a record for url_destroy(); null for a text that is none of this, or when memory runs out (the system log
 *         may say so)
 */
VELA_API url *url_parse(const char *text);
/** Frees a record and its texts. Null is fine. */
VELA_API void url_destroy(url *u);

/**
 * Copies a record. The address is not copied: in the copy of a resolved record `ai` points into the source, which must
 * outlive its use unless the copy is resolved again.
 *
 * @return a record for url_destroy(); null for null, for a record without its normalized form, or without memory
 */
VELA_API url *url_copy(const url *src);
/**
 * Destroys *dst and puts a copy there.
 *
 * @param src  not *dst, which is gone before it is copied
 * @return the copy; null, also in *dst, where url_copy() gives null
 */
VELA_API url *url_replace(url **dst, const url *src);

/**
 * Looks up host and port, and keeps the last IPv4 or IPv6 address of the answer in `ai`. Blocks as long as the
 * system's resolver does: with the usual settings 10 seconds per name server that is silent.
 *
 * @param hints  as for getaddrinfo(); null looks for IPv4 stream addresses only
 * @return 0; -1 for a null record; EAI_FAMILY when the answer has no such address; EAI_NONAME when its last one is too
 *         large to be kept; else getaddrinfo()'s code
 */
VELA_API int url_resolve(url *u, const struct addrinfo *hints);

/**
 * Writes the resolved address, without its port.
 *
 * @return 0, also with nothing written when there is no address yet; EINVAL for null, or after an address that was too
 *         large; ENOSPC when buf is too small
 */
VELA_API int url_addr_ntop(const url *u, char *buf, socklen_t len);

/** Logs a resolver's answer, at level debug. */
VELA_API void dump_addrinfo(const struct addrinfo *list);

/**
 * Encodes text for a query: letters, digits and "-._~" stay, a space becomes "+", every other byte "%" and two
 * lower-case hexadecimal digits.
 *
 * @return a text for the caller to free(); null without memory
 */
VELA_API char *url_encode(const char *s);

#ifdef __cplusplus
}
#endif

#endif
