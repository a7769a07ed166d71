#ifndef PLATFORM_KYDLOG_H
#define PLATFORM_KYDLOG_H

/// @file
/// The platform's log.

/// Severities of a log line, numbered like the syslog's.
enum KyDlogLevel {
    KY_DLOG_ERROR = 3,    ///< a step failed
    KY_DLOG_WARNING = 4,  ///< something odd was seen and ignored
    KY_DLOG_NOTICE = 5,   ///< a notable event of normal running
    KY_DLOG_TRACE = 7,    ///< tracing: entries, exits, check points
};

/// Writes one line to the platform's log.
///
/// @param level     how severe the line is, see KyDlogLevel; the platform drops what its limit excludes
/// @param source    name of the writing source file, without its extension; never null
/// @param function  name of the writing operation; never null
/// @param format    printf format of the text, without a line end; never null
///
/// May be called from any thread and with any lock held. It leaves `errno` as it was, and it neither waits
/// for the caller's locks nor calls back into the caller.
extern "C" void __dlog_printfex(int level, const char* source, const char* function, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

#endif
