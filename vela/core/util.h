/**
 * @file
 * Small helpers for text, numbers and addresses: formatting, hexadecimal, MAC addresses, random values, trimming,
 * UTF-8, signal names, IPv4 and IPv6 masks. None keeps state (the random ones reseed the process's rand()), none ends
 * the process. Sizes are in bytes and count the terminating NUL unless said otherwise; a size of 0 writes nothing.
 */
#ifndef VELA_CORE_UTIL_H
#define VELA_CORE_UTIL_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Formats into a text of exactly the needed size; the caller frees it. Null when it cannot be had. */
VELA_API char *malloc_vprintf(const char *format, va_list args) VELA_PRINTF(1, 0);
VELA_API char *malloc_printf(const char *format, ...) VELA_PRINTF(1, 2);

/**
 * Formats into a buffer and says, in the log, when the text does not fit.
 *
 * @param module   tag of the caller's module, for the log
 * @param message  logged as an error when the text was cut or size is 0; null for none
 * @param size     size of the buffer
 * @return the length written; where the text was cut: size - 1 with a message, the length that was needed without one.
 *         0 (after a log line) when size is 0 or the text cannot be formatted
 */
VELA_API int vela_snprintf(const char *module, const char *message, char *buffer, size_t size, const char *format, ...)
    VELA_PRINTF(5, 6);

/**
 * Writes bytes as hexadecimal digits, upper-case or lower-case, and clears the rest of the buffer.
 *
 * @param count  number of bytes
 * @param size   size of out: more than twice the count
 * @return count; 0, with nothing written, when out is too small or a pointer is null
 */
VELA_API size_t uchar2hex(const uint8_t *bytes, size_t count, char *out, size_t size);
VELA_API size_t uchar2lowerhex(const uint8_t *bytes, size_t count, char *out, size_t size);

/**
 * Writes all bytes but the last as lower-case hexadecimal digits, as far as out has room for two digits and a NUL.
 * Without a byte to write, out stays as it is.
 *
 * @return the number of digits written
 */
VELA_API size_t bin2hex(const uint8_t *bytes, size_t count, char *out, size_t size);

/**
 * Clears out and reads pairs of hexadecimal digits into it, until it is full or a pair does not parse. Pairs are read
 * as scanf reads "%2x": a lone digit counts as a pair.
 *
 * @return size, however many pairs there were; 0 for a null pointer or an empty text
 */
VELA_API size_t hex2uchar(const char *text, uint8_t *out, size_t size);

/**
 * Reads a MAC address: six fields of one or two hexadecimal digits, separated by colons. Text behind it is ignored.
 * gateway_mac_to_str() (vela/net/gateway.h) writes one.
 *
 * @param mac  receives six bytes; written only on success
 * @return 0; -1 when one of the fields does not parse
 */
VELA_API int strtomac(const char *text, uint8_t mac[6]);

/*
 * Random values. Each call seeds the process's rand() from /dev/urandom and draws from it: good for names, identifiers
 * and initialisation vectors, not for keys.
 */

/**
 * Writes (size - 1) / 2 random bytes as upper-case hexadecimal digits and a NUL.
 *
 * @param size  size of out: odd
 * @return the number of bytes, half the digits; 0, with nothing written, for an even size or a null pointer
 */
VELA_API size_t gen_rand_hex(char *out, size_t size);
/** Fills out with random bytes. Returns count; 0 for a null pointer. */
VELA_API size_t gen_rand_bytes(void *out, size_t count);
/**
 * Writes random letters and digits.
 *
 * @param out    room for count + 1 bytes
 * @param count  number of characters, without the NUL
 * @return out; null, with nothing written, for a count of 0 or a null pointer
 */
VELA_API char *gen_rand_string(char *out, size_t count);

/* White space, here: blank, tab, line feed, vertical tab, form feed, carriage return. */

/** Replaces the white space at the end of a text by NULs. The length is given: text needs no NUL. */
VELA_API void trim_trailing(char *text, size_t length);
/**
 * Copies a text without its leading white space, cut to the buffer. White space at its end stays.
 *
 * @param source  null gives an empty text
 */
VELA_API void strncpy_trim(char *out, size_t size, const char *source);
/**
 * Copies an interface's name up to its first dot, cut to the buffer: the parent of a VLAN interface. Without a dot, the
 * whole name; then the buffer's last byte is NUL too.
 *
 * @return out
 */
VELA_API char *strip_vlan_suffix(char *out, const char *ifname, size_t size);
/** 1 for the name of a PPP interface ("ppp..."), else 0. */
VELA_API int is_ppp_dev(const char *ifname);

/**
 * Comments out, in place, each line that contains one of the patterns: its first character becomes "#", so that no
 * byte moves. Lines of more than 255 characters, line feed included, are left alone.
 *
 * @param stream    open for reading and writing, seekable; borrowed. Flushed, and left at its end
 * @param patterns  plain texts separated by "|"; empty ones are skipped
 * @return 0; -1 when a line was too long (the others are done nevertheless) or the stream cannot be used
 */
VELA_API int comment_out_lines(FILE *stream, const char *patterns);

/**
 * How much of a text fits a limit of characters and of bytes without cutting a UTF-8 character. A byte that begins no
 * whole character counts as one character.
 *
 * @return number of bytes, without the NUL
 */
VELA_API size_t utf8_truncate_len(const char *text, size_t max_characters, size_t max_bytes);
/**
 * Makes a text valid UTF-8 in place and at the same length. Each byte that is no part of a character becomes "?", and
 * so does each byte of an overlong form, a surrogate, and a code point above U+10FFFF.
 *
 * @param text  may be null
 */
VELA_API void utf8_sanitize(char *text);

/** Name of a signal, "SIGHUP" (1) to "SIGSYS" (31); null for any other number. Static. */
VELA_API const char *vl_signame(int number);

/* IPv4 addresses and masks are numbers in host byte order, IPv6 addresses and masks 16 bytes in network order. */

/** 1 when an address lies in a network, else 0. */
VELA_API int ip_belongs_to_subnet(uint32_t address, uint32_t network, uint32_t mask);
/** Mask of a prefix length, 0 to 32; a longer one is logged and gives 0. */
VELA_API uint32_t ipv4_netmask_from_prefix_len(unsigned prefix_len);
/** Number of bits set, wherever they are. */
VELA_API unsigned ipv4_prefix_len_from_netmask(uint32_t mask);
/** Writes the mask of a prefix length, 0 to 127; any other number gives all 128 bits. */
VELA_API void ipv6_netmask_from_prefix_len(uint8_t mask[16], int prefix_len);
/**
 * Compares the networks of two addresses.
 *
 * @param prefix_len  0 to 127; any other number compares all 128 bits
 * @return 1 when they agree; 0 when not, or (after a log line) for a null address
 */
VELA_API int net_equals_v6(const uint8_t a[16], const uint8_t b[16], unsigned prefix_len);

#ifdef __cplusplus
}
#endif

#endif
