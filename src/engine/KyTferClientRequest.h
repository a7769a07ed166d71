#ifndef ENGINE_KYTFERCLIENTREQUEST_H
#define ENGINE_KYTFERCLIENTREQUEST_H

#include "engine/KyTferClient.h"
#include "engine/KyTferClientConstants.h"

/// What all requests have in common: they are refused without a device and after Stop, Stop waits for them,
/// and they keep what may be thrown from their caller. `request` fills the result that is given to it.
template <typename Request>
KyTferStatusMsg KyTferClient::Admit(const char* function, Request request) {
    KyTferStatusMsg result(512);
    const KyEngineThreads::Call call(m_threads);
    if (!call || m_pldProxy == nullptr) {
        Refuse(result, function, ky_engine::kNotInitialized);
        return result;
    }
    try {
        request(result);
    } catch (...) {
        Refuse(result, function, ky_engine::kOutOfMemory);
    }
    return result;
}

#endif
