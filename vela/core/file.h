/**
 * @file
 * Small text files that hold one line or one number (state under /var/run, values under /proc and /sys), counters,
 * directory trees, and whole files as Base64. Every call opens and closes what it works on; a path of null counts as a
 * file that cannot be opened. Nothing is locked.
 *
 * Readers cut a line at its first line feed, carriage return or BEL, but leave a line that begins with one as it is.
 * Text is cut to the caller's buffer and ends with a NUL; a size of 0 writes nothing. A default text of null is logged
 * as an error when it is needed, and counts as empty.
 */
#ifndef VELA_CORE_FILE_H
#define VELA_CORE_FILE_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Opens the file of a formatted path, close-on-exec. Note the order: mode first.
 *
 * @param mode  as for fopen
 * @return a stream the caller closes; null with errno: as fopen, ENAMETOOLONG for a path that does not fit PATH_MAX,
 *         EINVAL for a mode that is none
 */
VELA_API FILE *fopen_format(const char *mode, const char *format, ...) VELA_PRINTF(2, 3);

/**
 * Reads the first line of a file.
 *
 * @return 0; -EINVAL for a null path or no buffer; else the negated errno of what failed. An empty file fails without
 *         an errno of its own: the result is whatever errno was before, negated, and may be 0; the buffer is then empty
 */
VELA_API int fsreadline(const char *path, char *buffer, size_t size);
/** The same with a default text for every failure, an empty file included. Returns buffer. */
VELA_API char *freadline(const char *path, char *buffer, size_t size, const char *fallback);

/**
 * Finds the first line that contains a text and copies the whole of it, line feed included. Lines are looked at in
 * pieces of at most 254 characters, each as a line of its own.
 *
 * @param needle  any part of the line, exact in case
 * @return 0; -1 for a null argument, a file that cannot be opened, or no such line (the buffer's last byte is NUL)
 */
VELA_API int fsreadlinebykey(const char *path, const char *needle, char *buffer, size_t size);

/**
 * Reads the value of a key: the second word of the first line whose first word is the key, exact in case. Words are
 * separated by any run of blanks, tabs, carriage returns and equals signs ("speed 1000", "speed = 1000 Mb/s"). A key
 * without a value is passed over. Lines are looked at in pieces of at most 254 characters, each as a line of its own.
 *
 * @param fallback  copied when the file or the key is missing
 * @return buffer
 */
VELA_API char *freadvalue(const char *path, const char *key, char *buffer, size_t size, const char *fallback);

/**
 * Replaces a file's content by formatted text, without a line feed of its own. A new file follows the umask.
 *
 * @return number of characters written; -1 when the file cannot be opened or written
 */
VELA_API int fwriteline(const char *path, const char *format, ...) VELA_PRINTF(2, 3);

/**
 * Reads the decimal number at the start of a file's first line, behind white space if there is some, up to its 15th
 * (freaddouble: 14th) character.
 *
 * @return the number, at the edge of its type where it exceeds that; the default when there is none
 */
VELA_API long freadlong(const char *path, long fallback);
VELA_API unsigned long freadulong(const char *path, unsigned long fallback);
VELA_API double freaddouble(const char *path, double fallback);

/**
 * Adds to the decimal number in a file, 0 where there is none, and writes it back with a line feed. The sum wraps.
 * Not atomic: of two writers, one may lose an update.
 *
 * @return 0; -1 when the file cannot be written
 */
VELA_API int faddlong(const char *path, long delta);

/**
 * Creates a file that is missing, keeps the content of one that is there, and sets its mode.
 *
 * @return 0; -1 (after a log line)
 */
VELA_API int touch_file(const char *path, mode_t mode);

/**
 * The whole of a file as Base64 text (standard alphabet, padded), whatever its position. Ends the process when memory
 * runs out.
 *
 * @param stream  open for reading, seekable; borrowed
 * @return a text the caller frees, empty for an empty file; null for a null stream, or (after a log line) for one that
 *         has no size or gives fewer bytes than that
 */
VELA_API char *load_file_base64(FILE *stream);

/**
 * Creates each directory along a path that is not there yet, all with the given mode (less the umask). Ends the process
 * when memory runs out.
 *
 * @return 0; 1 (after a log line)
 */
VELA_API int vl_recursive_mkdir(const char *path, mode_t mode);
/**
 * Removes a tree from its leaves up. Does not follow symbolic links nor enter other file systems; stops at the first
 * entry that cannot be removed.
 *
 * @param minimum_depth  entries above it are kept: 0 removes the directory itself, 1 only what is in it
 * @return 0, also when the path does not exist; 1 (after a log line)
 */
VELA_API int vl_recursive_remove(const char *path, int minimum_depth);

/*
 * Relative to a directory: its descriptor, or AT_FDCWD. New files get the mode 0600. Numbers are read from a file's
 * first 15 characters as C writes them: decimal, "0x" hexadecimal, leading "0" octal.
 */

/** freadline() relative to a directory. */
VELA_API char *freadlineat(int directory, const char *path, char *buffer, size_t size, const char *fallback);
/** The number at the start of a file, behind white space if there is some; the default when there is none. */
VELA_API long freadlongat(int directory, const char *path, long fallback);
VELA_API int64_t freadi64at(int directory, const char *path, int64_t fallback);
/** Replaces a file's content by a number and a line feed. Returns 0, or -1 when it cannot be opened or written. */
VELA_API int fwritelongat(int directory, const char *path, long value);
/** fwriteline() relative to a directory. */
VELA_API int fwritelineat(int directory, const char *path, const char *format, ...) VELA_PRINTF(3, 4);
/**
 * Adds to the number in a file's first line, 0 where there is none, and writes it back in decimal with a line feed; the
 * sum wraps. Read, cut and written through one descriptor, yet not locked: of two writers, one may lose an update.
 *
 * @return 0; -1 when the file cannot be opened, cut or written
 */
VELA_API int faddlongat(int directory, const char *path, long delta);
VELA_API int faddi64at(int directory, const char *path, int64_t delta);

#ifdef __cplusplus
}
#endif

#endif
