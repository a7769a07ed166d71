#include "engine/KyRefusal.h"

#include <string>

#include "engine/KyTferClientConstants.h"
#include "platform/KyDlog.h"

namespace ky_engine {

void Fail(KyTferStatusMsg& result, const char* reason) {
    KyTferStatusMsg failed(512);
    failed.SetStatus(KyTferStatusMsg::TFER_STATUS_FAIL);
    try {
        failed.SetStatusMsg(std::string(reason));
    } catch (...) {
        failed.SetStatusMsg(std::string(kOutOfMemory));  // short enough to be stored in place
    }
    result.Swap(failed);
}

void Refuse(KyTferStatusMsg& result, const char* function, const char* reason) {
    __dlog_printfex(KY_DLOG_ERROR, kSource, function, "%s", reason);
    Fail(result, reason);
}

}  // namespace ky_engine
