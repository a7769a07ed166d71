// The status record: reading it out, cancel requests, and the rules of who may still write it.
#include <sys/prctl.h>

#include "engine/KyTferClient.h"
#include "engine/KyTferClientConstants.h"
#include "platform/KyDlog.h"

using namespace ky_engine;

KyTferStatusMsg KyTferClient::GetStatus(const std::string& /*transactionId*/) {
    KyTferStatusMsg result(512);
    try {
        KyRequestLock lock(m_requestMutex);
        result = m_status;
    } catch (...) {
        result.SetStatus(KyTferStatusMsg::TFER_STATUS_FAIL);
        result.SetStatusMsg(kOutOfMemory);
    }
    return result;
}

void KyTferClient::CancelTransaction(const std::string& transactionId) {
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "CancelTransaction", "Cancel transaction (%s)",
                    transactionId.c_str());
}

bool KyTferClient::WorkerRunning() const {
    return m_threads.WorkerRunning();
}

// Makes `result` a failed record of its own. If there is no memory for the reason, it says so instead: that
// text is short enough to be stored in place.
void KyTferClient::Refuse(KyTferStatusMsg& result, const char* function, const char* reason) {
    __dlog_printfex(KY_DLOG_ERROR, kSource, function, "%s", reason);
    try {
        result = KyTferStatusMsg(512);
        result.SetStatusMsg(reason);
    } catch (...) {
        result.SetStatusMsg(kOutOfMemory);
    }
    result.SetStatus(KyTferStatusMsg::TFER_STATUS_FAIL);
}

unsigned long long KyTferClient::BeginTransaction() {
    m_transactionActive = true;
    return ++m_transaction;
}

bool KyTferClient::IsCurrent(unsigned long long transaction) const {
    return transaction == m_transaction;
}

void KyTferClient::SetRequestType(KyTferStatusMsg::TferRequestType type) {
    m_status.SetReqType(type);
    m_requestType = type;
}

// A body that is called on a thread of the caller's own works for the transaction that is current.
unsigned long long KyTferClient::TransactionOfThisThread() {
    unsigned long long current = 0;
    {
        KyRequestLock lock(m_requestMutex);
        current = m_transaction;
    }
    return m_threads.TransactionOfThisThread(current);
}

void* KyTferClient::RunThread(void* engine, const char* name, void (KyTferClient::*body)()) {
    auto* client = static_cast<KyTferClient*>(engine);
    if (client == nullptr) return nullptr;
    // Cuts a name that is too long; the thread library's own call refuses it.
    prctl(PR_SET_NAME, name);
    (client->*body)();
    client->m_threads.Leave();
    return nullptr;
}

// Keeps what a body may throw from whoever has called it, a thread of the engine or of its user.
void KyTferClient::RunGuarded(void (KyTferClient::*body)()) {
    try {
        (this->*body)();
    } catch (...) {
        EndForWantOfMemory();
    }
}

// Only the C++ library's allocation can have thrown here. The transaction must end all the same, and without
// memory: the text is short enough to be stored in place.
void KyTferClient::EndForWantOfMemory() {
    const unsigned long long transaction = TransactionOfThisThread();
    KyRequestLock lock(m_requestMutex);
    if (!IsCurrent(transaction) || m_status.GetStatus() != KyTferStatusMsg::TFER_STATUS_INPROGRESS) return;
    m_status.SetStatus(KyTferStatusMsg::TFER_STATUS_FAIL);
    m_status.SetStatusMsg(kOutOfMemory);
    m_transactionActive = false;
}
