/**
 * @file
 * Typed reading and writing of members of JSON objects, a bounded time series kept inside one, and the cached
 * monotonic time that it goes by.
 *
 * Objects are borrowed, keys are member names. A reader gives its default for a missing member, a member of another
 * type, and a null object. A writer gives 0, or -1 when the JSON library refuses (want of memory, a null object).
 */
#ifndef VELA_CORE_JSON_H
#define VELA_CORE_JSON_H

#include <assert.h>
#include <jansson.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <time.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The library is built with 64-bit times everywhere; pkg-config and CMake tell its programs to be. */
static_assert(sizeof(time_t) == 8, "compile with -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64");

/** The last reading of the monotonic clock; only vela_grab_ts() and vela_set_ts() write it. */
extern VELA_API struct timespec vl_now;

/** Reads the monotonic clock into vl_now and returns its seconds. */
VELA_API int64_t vela_grab_ts(void);

/** Sets the seconds of vl_now, to pin the clock. */
VELA_API void vela_set_ts(int64_t seconds);

/** A string member, borrowed from the object. */
VELA_API const char *vela_json_get_str(const json_t *object, const char *key, const char *default_value);

/** A boolean member, or whether an integer member is not 0: 1 or 0. */
VELA_API int vela_json_get_bool(const json_t *object, const char *key, int default_value);

/** An integer member, cut to 32 bits. Reals are not integers. */
VELA_API int32_t vela_json_read_long(const json_t *object, const char *key, int32_t default_value);

/** An integer member. */
VELA_API int64_t vela_json_read_i64(const json_t *object, const char *key, int64_t default_value);

/**
 * Collects the integers of an array member and skips its other elements.
 *
 * @param values  receives them in a new block, which the caller frees; written only on success
 * @param count   receives their number, at least 1; written only on success
 * @return 0; -1 where there is no integer, or memory is short
 */
VELA_API int vela_json_read_array(const json_t *object, const char *key, int64_t **values, size_t *count);

/**
 * Joins the strings of an array member with commas, unquoted, and skips its other elements.
 *
 * @return a new text, which the caller frees; null where there is no string, or memory is short
 */
VELA_API char *vela_json_array_to_csv(const json_t *object, const char *key);

/** Adds to an integer member; one that is missing or no integer counts as 0. The sum has 64 bits. */
VELA_API int vela_json_add_long(json_t *object, const char *key, int32_t delta);
VELA_API int vela_json_add_i64(json_t *object, const char *key, int64_t delta);

/** Appends to an array member, which is made when missing. -1 also for a member that is no array. */
VELA_API int vela_json_append_array(json_t *object, const char *key, int64_t value);

/**
 * Appends to a time series: at most one value per interval, 10 seconds to begin with, by vl_now, which the caller
 * refreshes. From 360 values on, every second one is dropped and the interval doubled, so that the series keeps its
 * size and covers twice the time.
 *
 * It is kept in three members: PREFIX"Array" (the values, oldest first), PREFIX"Time" (seconds of the last append) and
 * PREFIX"Interval" (seconds; missing until the first thinning).
 *
 * @param prefix  at most 31 characters
 * @return 0; -ENOENT when the last value is too recent; -1 for a long prefix or when the JSON library refuses
 */
VELA_API int vela_json_maybe_append_array(json_t *object, const char *prefix, int64_t value);

/**
 * Reads a number that may be written as a string: decimal, hexadecimal with "0x", or octal with a leading 0.
 *
 * @param object_name     names the object in log lines
 * @param accept_integer  not 0: an integer member is good too
 * @param value           receives the number; written only on success
 * @return 1 read from a string, 2 from an integer, 0 neither
 */
VELA_API int vela_json_integer_value_from_obj(const json_t *object, const char *object_name, const char *key,
                                              int accept_integer, int32_t *value);

/**
 * The vendor prefix of a hardware address as a new JSON string: "02:56:4C:00:00:01" gives "02564c".
 *
 * @param mac  hexadecimal fields parted by colons; the first three are enough
 * @return the caller's reference; null when they do not parse
 */
VELA_API json_t *mac_str_to_oui_json_string(const char *mac);

/**
 * Sets a member to the Base64 text of a whole file, or to an empty string when it cannot be read.
 *
 * @param stream  open and seekable; stays open
 * @return 0; -1 when the file could not be read or the member not be set
 */
VELA_API int json_object_load_file_base64(json_t *object, const char *key, FILE *stream);

#ifdef __cplusplus
}
#endif

#endif
