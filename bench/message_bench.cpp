// A message's way into a buffer and out of it, beside a plain copy of the same bytes.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Samples.h"
#include "messages/KyTferStatusMsg.h"
#include "platform/KyIpcMsgBuffer.h"

namespace {

// A single run is too short for the clock: this many are measured together.
constexpr int kBatch = 256;

/// A record as the engine hands it out after a fetch, with a status text of so many characters.
KyTferStatusMsg MakeRecord(std::size_t textLength) {
    KyTferStatusMsg record(512);
    record.SetTransId("17");
    record.SetRespFifo("TferSvcClnt-4711-ClntRxFifo");
    record.SetStatus(KyTferStatusMsg::TFER_STATUS_COMPLETE);
    record.SetBytesRequested(307200);
    record.SetBytesTransfered(307200);
    record.SetOrigFileName("event.log");
    record.SetXferFileName("EVT0001.LOG");
    record.SetFilePath("/var/local/tal/pldserver/3/tferFiles");
    record.SetStatusMsg(std::string(textLength, 'x'));
    return record;
}

/// Runs `work` with 0 to kBatch - 1. @return the whole time
template <typename Work>
Samples::Clock::duration TimeOfBatch(Work work) {
    const auto begin = Samples::Clock::now();
    for (int i = 0; i < kBatch; ++i)
        work(i);
    return Samples::Clock::now() - begin;
}

void CopyBytes(const KyIpcMsgBuffer& message) {
    const auto length = static_cast<std::size_t>(message.GetLength());
    void* const copy = std::malloc(length);
    if (copy == nullptr) std::abort();
    std::memcpy(copy, message.GetBuf(), length);
    benchmark::DoNotOptimize(copy);
    benchmark::ClobberMemory();
    std::free(copy);
}

/// Measures batches of `work`, each followed by a batch of plain copies of `message`. `prepare` runs before
/// each batch, unmeasured.
template <typename Prepare, typename Work>
void CompareWithCopy(benchmark::State& state, const KyIpcMsgBuffer& message, Prepare prepare, Work work) {
    Samples own;
    Samples copies;
    while (state.KeepRunningBatch(kBatch)) {
        prepare();
        const auto time = TimeOfBatch(work);
        state.SetIterationTime(std::chrono::duration<double>(time).count());
        own.Add(time);
        copies.Add(TimeOfBatch([&](int) { CopyBytes(message); }));
    }
    constexpr double nanosecondsEach = 1000.0 / kBatch;
    state.counters["bytes"] = message.GetLength();
    state.counters["p50_ns"] = own.Quantile(0.5) * nanosecondsEach;
    state.counters["memcpy_p50_ns"] = copies.Quantile(0.5) * nanosecondsEach;
    state.counters["ratio"] = own.Quantile(0.5) / copies.Quantile(0.5);
}

void Serialize(benchmark::State& state) {
    KyTferStatusMsg record = MakeRecord(static_cast<std::size_t>(state.range(0)));
    KyIpcMsgBuffer message(512);
    record.Serialize(&message);
    CompareWithCopy(
        state, message, [] {},
        [&](int) {
            KyIpcMsgBuffer fresh(512);
            record.Serialize(&fresh);
            benchmark::DoNotOptimize(fresh.GetBuf());
        });
}

void Deserialize(benchmark::State& state) {
    KyIpcMsgBuffer message(512);
    MakeRecord(static_cast<std::size_t>(state.range(0))).Serialize(&message);
    // A buffer is read once: each run of a batch has its own.
    std::vector<std::unique_ptr<KyIpcMsgBuffer>> received;
    for (int i = 0; i < kBatch; ++i)
        received.push_back(std::make_unique<KyIpcMsgBuffer>(message.GetLength()));
    const auto receive = [&] {
        for (const auto& buffer : received) {
            buffer->Clear();
            buffer->Append(message.GetBuf(), message.GetLength());
        }
    };
    CompareWithCopy(state, message, receive, [&](int i) {
        KyTferStatusMsg record(512);
        record.Deserialize(received[static_cast<std::size_t>(i)].get());
        benchmark::DoNotOptimize(record);
    });
}

// A record of the engine's usual texts, and one with a long text.
BENCHMARK(Serialize)->ArgName("text")->Arg(100)->Arg(4096)->UseManualTime();
BENCHMARK(Deserialize)->ArgName("text")->Arg(100)->Arg(4096)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
