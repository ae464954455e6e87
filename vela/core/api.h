/**
 * @file
 * What every public header needs: how a function is exported.
 */
#ifndef VELA_CORE_API_H
#define VELA_CORE_API_H

/** Marks what the shared object exports; everything else is hidden. */
#define VELA_API __attribute__((visibility("default")))

/** Lets the compiler check a printf-like call: position of the format, position of its first argument (0: va_list). */
#define VELA_PRINTF(position, arguments) __attribute__((__format__(__printf__, position, arguments)))

#endif
