// One engine and a hundred thousand transactions, in stepped time.
#include <malloc.h>
#include <sched.h>
#include <sys/stat.h>

#include "endurance/Growth.h"
#include "engine/EngineFixture.h"
#include "host/KyHostLog.h"

extern "C" int __real_stat(const char* path, struct stat* info);
extern "C" int __wrap_stat(const char* path, struct stat* info);

/// Each poll of a monitor looks for its file, without a pause between them: so the others get on meanwhile.
extern "C" int __wrap_stat(const char* path, struct stat* info) {
    sched_yield();
    return __real_stat(path, info);
}

namespace {

constexpr int kTransactions = kSanitized ? 5'000 : 100'000;
constexpr char kSource[] = "/var/local/tal";
constexpr char kPushed[] = "complete: File Transfer Complete";
constexpr char kNoListing[] = "failed: File transfer Failed - timedout";

class TransactionGrowth : public EngineTest {
protected:
    enum Kind { FETCH, PUSH, PUSH_OF_NOTHING, DIRECTORY };

    void Ask(Kind kind) {
        if (kind == FETCH) engine->GetFileFromDevRequest("f", 1000);
        if (kind == DIRECTORY) engine->GetDirectoryFromDevRequest();
        if (kind == PUSH) WriteFile(std::string(kSource) + "/p", bytes);
        if (kind == PUSH || kind == PUSH_OF_NOTHING) engine->PutFileToDevRequest(kSource, "p");
    }
};

TEST_F(TransactionGrowth, EngineHoldsNoMoreThanAtFirst) {
    const struct {
        Kind kind;
        void (*fault)(SimFault&);
        std::string outcome;
        bool byTime = false;  // the monitor ends it
    } rows[] = {
        {FETCH, [](SimFault&) {}, Fetched("f")},
        {FETCH, [](SimFault& f) { f.sizeDelta = -1; }, kTimedOut, true},
        {FETCH, [](SimFault& f) { f.answer = SimAnswer::SILENT; }, kTimedOut, true},
        {FETCH, [](SimFault& f) { f.noFile = true; }, kTimedOut, true},
        {FETCH, [](SimFault& f) { f.answer = SimAnswer::READY_TWICE; }, Fetched("f")},
        {PUSH, [](SimFault&) {}, kPushed},
        {PUSH, [](SimFault& f) { f.refuse = true; }, "failed: Request failed"},
        {PUSH_OF_NOTHING, [](SimFault&) {},
         "failed: Failed to move file(/var/local/tal/p) to (/var/local/tal/pldserver/p)"},
        {DIRECTORY, [](SimFault&) {}, Fetched("listing.txt")},
        {DIRECTORY, [](SimFault& f) { f.answer = SimAnswer::SILENT; }, kNoListing, true},
    };
    mallopt(M_ARENA_MAX, 1);  // each takes 64 MiB of addresses, one more if threads coincide as never before
    Device().Journal(false);
    Start();
    log.reset();
    ky_host::SetLogLevel(-1);
    const int threads = ThreadCount();
    Figures before;
    for (int i = 0; i < kTransactions; ++i) {
        if (i == 100) before = FiguresOf("/proc/self");
        const auto& row = rows[static_cast<size_t>(i) % std::size(rows)];
        for (const SimOperation operation :
             {SimOperation::FETCH, SimOperation::PUSH, SimOperation::DIRECTORY})
            device->SetFault(operation, Fault(row.fault));
        // What the device answers within the request would come too early.
        device->PauseDelivery();
        Ask(row.kind);
        device->ResumeDelivery();
        ASSERT_TRUE(device->WaitIdle(10'000) && WaitForWorker()) << i;
        // Time passes again if the monitor had not begun.
        const auto ended = [&] {
            if (row.byTime) SteppedTime::Advance(200s);
            return ThreadCount() == threads;
        };
        ASSERT_TRUE(WaitUntil(ended) && device->WaitIdle(10'000)) << i;
        // Neither the device's files nor its listing are to grow.
        if (row.kind == PUSH) fs::remove(files / Record().GetXferFileName());
        if (row.kind == DIRECTORY) engine->CreateDirectoryFromFile(Record().GetXferFullFilePath());
        ASSERT_EQ(Outcome(Record()), row.outcome) << i;
    }
    ExpectNoGrowth(before, FiguresOf("/proc/self"));
}

}  // namespace
