#ifndef HOST_KYHOSTLOG_H
#define HOST_KYHOSTLOG_H

#include <climits>

/// The host's log (see platform/KyDlog.h).
///
/// Each log call writes one line to standard error in one write: local time, name of the severity, source,
/// function and text. If standard error is the journal, `<severity>` replaces time and name. Control
/// characters are shown as `?`. A text of more than 64 KiB is cut and ends with "...".
///
/// The highest level that is written is 5, or the value of the environment variable KY_LOG_LEVEL at the first
/// log call (a decimal number, 0 or more; other values are ignored). A failed write is ignored. If standard
/// error may be a pipe without a reader, the process must ignore SIGPIPE.
namespace ky_host {

/// Gets each log line instead of standard error.
///
/// @param context   the context that was passed to SetLogSink()
/// @param level     severity of the line, see KyDlogLevel
/// @param source    name of the writing source file
/// @param function  name of the writing operation
/// @param text      the formatted text, with its control characters; all three texts are valid only during
///                  the call
///
/// The sink runs on the logging thread, on several threads at once, and with the locks that such a thread
/// holds. It must not wait for a lock under which any thread logs, must not throw, and must not call
/// SetLogSink() or SetLogLevel(). Lines that the sink logs are dropped.
using KyLogSink = void (*)(void* context, int level, const char* source, const char* function,
                           const char* text);

/// Sets the sink of all log lines. With a null sink, lines go to standard error again.
///
/// The sink gets all lines up to level `maxLevel`; the limit of standard error does not apply. The call waits
/// for running calls of the previous sink, which is not called any more afterwards. Any thread may call it.
void SetLogSink(KyLogSink sink, void* context, int maxLevel = INT_MAX);

/// Sets the highest level that is written to standard error, instead of KY_LOG_LEVEL; -1 and less for none of
/// the levels 0 to 7. Any thread may call it; it waits like SetLogSink().
void SetLogLevel(int level);

}  // namespace ky_host

#endif
