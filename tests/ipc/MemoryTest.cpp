#include <climits>
#include <cstdlib>
#include <new>

#include "IpcTest.h"
#include "client/TferSvcMsgClient.h"
#include "messages/KyTferRespMsg.h"

static int s_works = INT_MAX;  // allocations that still work

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return s_works-- > 0 ? std::malloc(size + 1) : nullptr;
}

void* operator new(size_t size) {
    if (void* const memory = operator new(size, std::nothrow)) return memory;
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}

/// Every allocation up to the answer fails in turn, and all that come after it.
TEST_F(IpcTest, ExhaustedMemoryEndsTheRequest) {
    TferSvcMsgClient* const client = TferSvcMsgClient::GetInstance();
    const std::string fifo = Path("TferSvcClnt-" + std::to_string(getpid()) + "-ClntRxFifo");
    const std::string longName(100, 'n');
    KyTferRespMsg reply(512);
    Session service;
    ASSERT_EQ(service.OpenReadFifo("tfersvc-CtrlFifo", 0600), 0);
    bool answered = false;
    s_poll = [&](pollfd* files, nfds_t count, int) {
        s_works = INT_MAX;
        answered = WriteRaw(fifo, FrameOf(BytesOf(reply))).Get() >= 0;
        return __real_poll(files, count, 0);
    };
    for (int works = 0; !answered; ++works) {
        KyTferRespMsg* response = nullptr;
        s_works = works;
        EXPECT_NO_THROW(response = client->GetDevFile(longName, "", 0));
        s_works = INT_MAX;
        ASSERT_EQ(response != nullptr, answered) << works;
        EXPECT_NE(access(fifo.c_str(), F_OK), 0);
        delete response;
    }
}
