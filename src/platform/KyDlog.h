#ifndef PLATFORM_KYDLOG_H
#define PLATFORM_KYDLOG_H

/// @file
/// The platform's log.

/// Severities of a log line, with the numbers of syslog.
enum KyDlogLevel {
    KY_DLOG_ERROR = 3,    ///< a step failed
    KY_DLOG_WARNING = 4,  ///< something unexpected was ignored
    KY_DLOG_NOTICE = 5,   ///< a notable event of normal operation
    KY_DLOG_TRACE = 7,    ///< tracing: entries, exits, checkpoints
};

/// Writes one line to the platform's log.
///
/// @param level     severity, see KyDlogLevel; the platform drops lines above its limit
/// @param source    name of the source file, without its extension; never null
/// @param function  name of the operation; never null
/// @param format    printf format of the text, without a line end; never null
///
/// The text may be long and contain any bytes but NUL: parts of it come from the device.
///
/// Any thread may call the function, with any lock held. It preserves `errno`, waits for no lock of the
/// caller, does not call the library and does not throw.
extern "C" void __dlog_printfex(int level, const char* source, const char* function, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

#endif
