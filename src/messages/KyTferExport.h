#ifndef MESSAGES_KYTFEREXPORT_H
#define MESSAGES_KYTFEREXPORT_H

/// @file
/// What of the library others may see.

/// Marks a class as part of the library's public interface. Everything else stays hidden in the shared
/// library.
#if defined(__GNUC__)
#define KYTFER_EXPORT __attribute__((visibility("default")))
#else
#define KYTFER_EXPORT
#endif

#endif
