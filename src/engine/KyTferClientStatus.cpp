// The status record: reading it out, cancel requests, and the rules of who may still write it.
#include <sys/prctl.h>

#include <new>

#include "engine/KyTferClient.h"
#include "engine/KyTferClientConstants.h"
#include "platform/KyDlog.h"

using namespace ky_engine;

KyTferStatusMsg KyTferClient::GetStatus(const std::string& /*transactionId*/) {
    KyTferStatusMsg result(512);
    {
        KyRequestLock lock(m_requestMutex);
        result = m_status;
    }
    if (!result.IsWhole()) Fail(result, kOutOfMemory);
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
void KyTferClient::Fail(KyTferStatusMsg& result, const char* reason) {
    KyTferStatusMsg failed(512);
    try {
        failed.SetStatusMsg(reason);
    } catch (...) {
        failed.SetStatusMsg(kOutOfMemory);
    }
    failed.SetStatus(KyTferStatusMsg::TFER_STATUS_FAIL);
    result.Swap(failed);
}

void KyTferClient::Refuse(KyTferStatusMsg& result, const char* function, const char* reason) {
    __dlog_printfex(KY_DLOG_ERROR, kSource, function, "%s", reason);
    Fail(result, reason);
}

unsigned long long KyTferClient::BeginTransaction() {
    m_transactionActive = true;
    return ++m_transaction;
}

bool KyTferClient::IsCurrent(unsigned long long transaction) const {
    return transaction == m_transaction;
}

void KyTferClient::Keep(KyTferStatusMsg& next) {
    if (!next.IsWhole()) throw std::bad_alloc();
    m_status.Swap(next);
}

// The same with a copy for the caller, who is refused if there is no memory for it.
void KyTferClient::Accept(KyTferStatusMsg& next, KyTferStatusMsg& result) {
    result = next;
    if (!result.IsWhole()) throw std::bad_alloc();
    Keep(next);
    SetRequestType(m_status.GetReqType());
}

// A monitor records the same again and again, for which it takes no memory.
void KyTferClient::Record(KyTferStatusMsg::TferStatus status, std::string_view text) {
    if (m_status.GetStatusMsg() != text) m_status.SetStatusMsg(std::string(text));
    m_status.SetStatus(status);
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
        EndForWantOfMemory(body == &KyTferClient::FetchFile);
    }
}

// Only the C++ library's allocation can have thrown here. The transaction must end all the same, and without
// memory. A worker that has not got to the end of a fetch has failed it, also if the monitor has seen the
// whole file arrive.
void KyTferClient::EndForWantOfMemory(bool isFetchWorker) {
    const unsigned long long transaction = TransactionOfThisThread();
    KyRequestLock lock(m_requestMutex);
    const bool unfinished = m_status.GetStatus() == KyTferStatusMsg::TFER_STATUS_INPROGRESS ||
                            (isFetchWorker && m_completedByWorker != transaction);
    if (IsCurrent(transaction) && unfinished) RecordNoMemory(transaction);
}

// The text is short enough to be stored in place.
void KyTferClient::RecordNoMemory(unsigned long long transaction) {
    m_failedByWorker = transaction;  // or a monitor would find the file that has landed, and call it complete
    m_status.SetStatus(KyTferStatusMsg::TFER_STATUS_FAIL);
    m_status.SetStatusMsg(kOutOfMemory);
    m_transactionActive = false;
}
