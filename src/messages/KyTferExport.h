#ifndef MESSAGES_KYTFEREXPORT_H
#define MESSAGES_KYTFEREXPORT_H

/// @file
/// Symbol visibility of the shared library.

/// Exports a class from the shared library. All other symbols are hidden.
#if defined(__GNUC__)
#define KYTFER_EXPORT __attribute__((visibility("default")))
#else
#define KYTFER_EXPORT
#endif

#endif
