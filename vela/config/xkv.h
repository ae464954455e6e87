/**
 * @file
 * Files of the kernel and the firmware that hold one key=value pair a line, read whole and then asked key by key.
 *
 *     char *info = xkv_file_to_buff("/proc/velahal/board");
 *     uint32_t id;
 *     if (xkv_read_x32(info, "systemid", &id)) ...
 *     free(info);
 *
 * Every extractor takes a place to start from (the buffer, or a cursor into it; null finds nothing) and a key, and
 * returns a cursor just behind what it read, or null when it read nothing. With a null key it reads at the place
 * itself, so that the lines of a list follow one another: the list ends where a cursor stands on a NUL.
 *
 * A key is found anywhere in a line, not only at its start: "id" finds "systemid" when that comes first. So ask for
 * keys that are no tail of an earlier one.
 *
 * The output is zeroed before anything else (its first byte, for texts and addresses) and stays so when nothing is
 * read.
 */
#ifndef VELA_CONFIG_XKV_H
#define VELA_CONFIG_XKV_H

#include <stddef.h>
#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Reads a file whole, also one that tells no size (/proc). Ends the process when memory runs out.
 *
 * @return the contents and at least two NULs behind them, for the caller to free(); null when it cannot be opened
 */
VELA_API char *xkv_file_to_buff(const char *path);

/**
 * Reads a boolean: the value is any leading part of "1", "true", "enabled" (1) or of "0", "false", "disabled" (0),
 * lower case, not empty, and its line must end in a line feed.
 *
 * @return the start of the next line; null for any other value
 */
VELA_API char *xkv_read_bool(const char *from, const char *key, uint8_t *out);

/**
 * Copies a value up to its line feed or the end of the buffer.
 *
 * @param size  bytes at out, the NUL included; a longer value is cut. 0 writes nothing
 * @return one past the last character looked at: the next line, or the rest of a value that was cut
 */
VELA_API char *xkv_read_str(const char *from, const char *key, size_t size, char *out);

/**
 * Reads a hardware address, "02:00:5e:10:00:01" or "02005e100001". An address cut short leaves six zero bytes.
 *
 * @param cnt  6; anything else stops the program
 * @return one past the character that ends the address
 */
VELA_API char *xkv_read_mac(const char *from, const char *key, size_t cnt, uint8_t *out);

/**
 * @name Numbers
 * Unsigned decimal (u), hexadecimal with or without "0x" (x) and signed decimal (s), by width in bits. Converted as
 * sscanf() does: white space before the number is skipped, line feeds too; what follows the digits is not looked at.
 * Each returns one past the character that ends the number, which is the next line when that was the line feed.
 * @{
 */
VELA_API char *xkv_read_u64(const char *from, const char *key, uint64_t *out);
VELA_API char *xkv_read_u32(const char *from, const char *key, uint32_t *out);
VELA_API char *xkv_read_u16(const char *from, const char *key, uint16_t *out);
VELA_API char *xkv_read_u8(const char *from, const char *key, uint8_t *out);
VELA_API char *xkv_read_x64(const char *from, const char *key, uint64_t *out);
VELA_API char *xkv_read_x32(const char *from, const char *key, uint32_t *out);
VELA_API char *xkv_read_x16(const char *from, const char *key, uint16_t *out);
VELA_API char *xkv_read_x8(const char *from, const char *key, uint8_t *out);
VELA_API char *xkv_read_s64(const char *from, const char *key, int64_t *out);
VELA_API char *xkv_read_s32(const char *from, const char *key, int32_t *out);
VELA_API char *xkv_read_s16(const char *from, const char *key, int16_t *out);
VELA_API char *xkv_read_s8(const char *from, const char *key, int8_t *out);
/** @} */

#ifdef __cplusplus
}
#endif

#endif
