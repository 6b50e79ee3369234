/** @file
 * Symbol visibility for libKorvane.
 *
 * The library is built with hidden visibility by default; only declarations
 * marked KORVANE_API appear in its dynamic symbol table. Every exported
 * function also has C linkage, so its symbol is its plain name. */
#ifndef KORVANE_EXPORT_H
#define KORVANE_EXPORT_H

/// Marks a declaration as one the library exports.
#define KORVANE_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define KORVANE_BEGIN_DECLS extern "C" { ///< opens a block of C-linkage declarations
#define KORVANE_END_DECLS }            ///< closes it
#else
#define KORVANE_BEGIN_DECLS
#define KORVANE_END_DECLS
#endif

#endif
