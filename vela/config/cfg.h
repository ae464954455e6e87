/**
 * @file
 * The device's configuration: a text file of dotted keys and values ("/tmp/system.cfg"), parsed into a list of records
 * and asked by key.
 *
 *     cfg_entry *cfg = parse("/tmp/system.cfg");
 *     cfg_entry *radios = get_cfg_section(cfg, ".devname", NULL, "radio.");
 *     for (const cfg_entry *radio = radios; radio; radio = radio->next)
 *         printf("%s has channel %d\n", radio->value,
 *                get_int32(cfg, 0, "radio.%d.channel", get_cfg_key_idx(radio->key, 1)));
 *     free_cfg_it(radios);
 *     free_cfg(cfg);
 *
 * A configuration is the pointer to its first record, in the order of the file; null is the empty one, and every query
 * takes it. A query walks the whole list: keep its answer rather than ask again in a loop. An iterator is a list of the
 * same shape whose keys and values are borrowed from the configuration it was taken from; every query works on it too.
 * Free iterators with free_cfg_it() before their configuration.
 *
 * Lines of the file: "#" starts a comment, a line without "=" is ignored. A key has blanks and tabs trimmed; a value is
 * everything behind the first "=" but the line's last character, neither trimmed nor unescaped (so the last line needs
 * its newline, and a carriage return stays in the value). After a comment that starts with "# misc" a repeated key
 * changes the value of its first record; before it all are kept and lookups find the first.
 *
 * Keys compare without regard to ASCII case and by the value of their numbers: "Radio.2" equals "radio.2" and comes
 * before "radio.10"; digits come after letters. Formats and arguments are printf's and spell a key or a prefix. Out of
 * memory while records are built ends the process; while a key is formatted it is logged as "OOM" and the result is the
 * default, 0 or null. Nothing is locked: one owner at a time.
 */
#ifndef VELA_CONFIG_CFG_H
#define VELA_CONFIG_CFG_H

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct cfg_entry cfg_entry;
/**
 * One record. A record of a parsed configuration owns itself and its texts, each of them a block from malloc: a program
 * may free and replace a text, unlink and free a record, put one of its own between two, or cut a list in two.
 * free_cfg() frees what it finds in the list. A new value wants escaped null again (freed, unless it was the value).
 */
struct cfg_entry {
    char *key;
    char *value;
    char *escaped; /**< cache of esc_value(); null until asked for, the value itself where nothing needs escaping */
    cfg_entry *next;
};

/** Parses a file. Null when it cannot be read or holds no entry. */
VELA_API cfg_entry *parse(const char *path);
/** Parses a stream from where it stands to its end; the stream stays open. Null for a null stream or without entries.
 */
VELA_API cfg_entry *parse_stream(FILE *stream);
/** Frees every record of a list, its texts with it. Null is fine. */
VELA_API void free_cfg(cfg_entry *cfg);

/** Writes "key=value" lines to standard output. */
VELA_API void print_cfg(const cfg_entry *cfg);
/**
 * Writes a file that parse() reads back: the line "# CFG Start" and one line per entry, in list order. Ends at the
 * first line that cannot be written.
 *
 * @return 0; -1 when the file cannot be opened or not be written whole
 */
VELA_API int save_cfg(const cfg_entry *cfg, const char *path);

/** The value of the first entry with the key, owned by the configuration; the default when there is none. */
VELA_API const char *get_value(const cfg_entry *cfg, const char *fallback, const char *format, ...) VELA_PRINTF(3, 4);
VELA_API const char *vget_value(const cfg_entry *cfg, const char *fallback, const char *format, va_list args)
    VELA_PRINTF(3, 0);
/** The same for use inside double quotes of a shell command: see esc_value(). */
VELA_API const char *get_esc_value(cfg_entry *cfg, const char *fallback, const char *format, ...) VELA_PRINTF(3, 4);
/** The value with a backslash before each backquote, backslash, double quote and dollar; made once, owned by the entry.
 */
VELA_API const char *esc_value(cfg_entry *entry);

/**
 * @name Numbers
 * What the value starts with, converted as strtol() does: leading white space is skipped, what follows the number is
 * not looked at. The default when the key is missing, there are no digits, or the number does not fit the result; a
 * negative unsigned number counts modulo 2^32. Base 0 ("0x1f", "017", "15") but for get_int32_dec(): base 10.
 * @{
 */
VELA_API int32_t get_int32(const cfg_entry *cfg, int32_t fallback, const char *format, ...) VELA_PRINTF(3, 4);
VELA_API uint32_t get_uint32(const cfg_entry *cfg, uint32_t fallback, const char *format, ...) VELA_PRINTF(3, 4);
VELA_API int32_t get_int32_dec(const cfg_entry *cfg, int32_t fallback, const char *format, ...) VELA_PRINTF(3, 4);
VELA_API int64_t get_int64(const cfg_entry *cfg, int64_t fallback, const char *format, ...) VELA_PRINTF(3, 4);
/** @} */

/**
 * A switch: 1 for "on", "enabled", "1", "enable", "active", "true"; 0 for "off", "disabled", "0", "disable",
 * "inactive", "false"; in any case, with blanks and tabs around. Any other value gives the default.
 */
VELA_API int get_bool(const cfg_entry *cfg, int fallback, const char *format, ...) VELA_PRINTF(3, 4);

/** Number of entries. */
VELA_API int get_cfg_count(const cfg_entry *cfg);

/**
 * The entries that match, in their order.
 *
 * @param exact  non-zero: the key equals the formatted one; 0: it begins with it, byte by byte
 * @return an iterator for free_cfg_it(); null when nothing matches
 */
VELA_API cfg_entry *get_cfg_it(const cfg_entry *cfg, int exact, const char *format, ...) VELA_PRINTF(3, 4);
/** How many get_cfg_it() returns. */
VELA_API int get_cfg_key_count(const cfg_entry *cfg, int exact, const char *format, ...) VELA_PRINTF(3, 4);

/**
 * The elements of a numbered section, sorted by key: of "radio.1.mode=ap", "radio.2.mode=sta", "radio.10.mode=ap" the
 * prefix "radio.", postfix ".mode" and value "ap" give 1 and 10. The prefix compares byte by byte and ends with a dot;
 * without one it works as it is and is warned about. The number may have a base as for strtol().
 *
 * @param postfix  what follows the number, with its dot (else logged as an error, and nothing matches); null: nothing
 * @param value    the value to have, exact in case; null for any
 * @return an iterator for free_cfg_it(); null when there are none
 */
VELA_API cfg_entry *get_cfg_section(const cfg_entry *cfg, const char *postfix, const char *value, const char *format,
                                    ...) VELA_PRINTF(4, 5);
/** How many get_cfg_section() returns. */
VELA_API int get_cfg_section_count(const cfg_entry *cfg, const char *postfix, const char *value, const char *format,
                                   ...) VELA_PRINTF(4, 5);
/** How many elements have a value that get_bool() takes for 1. */
VELA_API int get_cfg_section_enabled_count(const cfg_entry *cfg, const char *postfix, const char *format, ...)
    VELA_PRINTF(3, 4);

/**
 * Joins two iterators. Walks the first to its end: to join many, start with the last.
 *
 * @param more  the second, taken over and set to null; null or an empty one changes nothing
 * @return the joined list
 */
VELA_API cfg_entry *cfg_it_append(cfg_entry *it, cfg_entry **more);
/** Frees an iterator, not what it borrows. Null is fine. */
VELA_API void free_cfg_it(cfg_entry *it);

/**
 * What changed from one configuration to another: first the new and changed entries with their new values, in the new
 * order, then the removed ones with their old values, in the old order. Keys whose last component is "comment" do not
 * count. Borrows from both; either may be null.
 *
 * @return an iterator for free_cfg_it(); null when nothing changed
 */
VELA_API cfg_entry *get_cfg_diff_it(const cfg_entry *old_cfg, const cfg_entry *new_cfg);

/**
 * The n-th number (from 1) among a key's components behind its first dot: 2 and 3 of "wlan.2.vap.3". A component that
 * starts with a number counts as that number; 0 and what 32 bits do not hold are passed over.
 *
 * @return the number; -1 when there are fewer
 */
VELA_API int get_cfg_key_idx(const char *key, int n);
/** The part of a key behind its n-th dot; the key itself for 0; null when there are fewer dots, or for a null key. */
VELA_API const char *get_key_element(const char *key, int n);

#ifdef __cplusplus
}
#endif

#endif
