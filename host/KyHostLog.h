#ifndef HOST_KYHOSTLOG_H
#define HOST_KYHOSTLOG_H

#include <climits>

/// The host's side of the platform's log (see platform/KyDlog.h).
///
/// Each call of the log writes one line to standard error in one write: the local time, the severity's name,
/// the source, the function and the text. Where standard error is the journal, `<severity>` stands in the
/// place of time and name. Control characters are shown as `?`; a text of more than 64 KiB is cut and ends
/// with "...".
///
/// The least severe level that is written is 5, or what the environment variable KY_LOG_LEVEL says when the
/// log is first used (a decimal number from 0 on; anything else counts as absent). A failed write is ignored;
/// a process whose standard error may be a pipe without a reader ignores SIGPIPE itself.
namespace ky_host {

/// Takes one log line in the place of standard error.
///
/// @param context   what was given to SetLogSink() along with the sink
/// @param level     severity of the line, see KyDlogLevel
/// @param source    name of the writing source file
/// @param function  name of the writing operation
/// @param text      the text as formatted, control characters included; all three texts are valid only during
///                  the call
///
/// It runs on the thread that logs, on several at once, and with whatever locks that thread holds; so it
/// waits for no lock under which anybody logs. It throws nothing and does not call SetLogSink() or
/// SetLogLevel(). What it logs itself is dropped.
using KyLogSink = void (*)(void* context, int level, const char* source, const char* function,
                           const char* text);

/// Sets the sink that takes the log's lines from now on, or returns to standard error with a null sink.
///
/// The limit of standard error does not apply to a sink: it gets all lines up to level `maxLevel`, and lines
/// above that are dropped. When the call returns, no call of the sink before is running and none will begin:
/// so it waits for those that are running. May be called from any thread.
void SetLogSink(KyLogSink sink, void* context, int maxLevel = INT_MAX);

/// Sets the least severe level that is written to standard error, in the place of KY_LOG_LEVEL. -1, and any
/// value below, writes nothing of the levels 0 to 7. May be called from any thread; waits like SetLogSink().
void SetLogLevel(int level);

}  // namespace ky_host

#endif
