#ifndef ENGINE_KYREFUSAL_H
#define ENGINE_KYREFUSAL_H

#include "messages/KyTferStatusMsg.h"

namespace ky_engine {

/// Makes `result` a failed record of its own, with the reason as its text. Never throws: without memory for the
/// reason, the text says so.
void Fail(KyTferStatusMsg& result, const char* reason);

/// The same, and logs the reason.
void Refuse(KyTferStatusMsg& result, const char* function, const char* reason);

}  // namespace ky_engine

#endif
