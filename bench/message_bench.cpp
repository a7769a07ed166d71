// A status message into a buffer and out of it. CopyBytes is the lower bound: a plain copy of the same bytes.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "messages/KyTferStatusMsg.h"
#include "platform/KyIpcMsgBuffer.h"

namespace {

/// A record after a fetch, with a status text of so many characters.
KyTferStatusMsg MakeRecord(const benchmark::State& state) {
    KyTferStatusMsg record(512);
    record.SetTransId("17");
    record.SetRespFifo("TferSvcClnt-4711-ClntRxFifo");
    record.SetStatus(KyTferStatusMsg::TFER_STATUS_COMPLETE);
    record.SetBytesRequested(307200);
    record.SetBytesTransfered(307200);
    record.SetOrigFileName("event.log");
    record.SetXferFileName("EVT0001.LOG");
    record.SetFilePath("/var/local/tal/pldserver/3/tferFiles");
    record.SetStatusMsg(std::string(static_cast<std::size_t>(state.range(0)), 'x'));
    return record;
}

void CopyBytes(benchmark::State& state) {
    KyIpcMsgBuffer message(512);
    MakeRecord(state).Serialize(&message);
    const auto length = static_cast<std::size_t>(message.GetLength());
    for ([[maybe_unused]] auto iteration : state) {
        void* const copy = std::malloc(length);
        if (copy == nullptr) std::abort();
        std::memcpy(copy, message.GetBuf(), length);
        benchmark::DoNotOptimize(copy);
        benchmark::ClobberMemory();
        std::free(copy);
    }
    state.counters["bytes"] = message.GetLength();
}

void Serialize(benchmark::State& state) {
    KyTferStatusMsg record = MakeRecord(state);
    for ([[maybe_unused]] auto iteration : state) {
        KyIpcMsgBuffer message(512);
        record.Serialize(&message);
        benchmark::DoNotOptimize(message.GetBuf());
    }
}

// Deserialize moves the buffer's reading position, so each iteration fills the buffer first: with a copy.
void FillAndDeserialize(benchmark::State& state) {
    KyIpcMsgBuffer message(512);
    MakeRecord(state).Serialize(&message);
    KyIpcMsgBuffer received(message.GetLength());
    for ([[maybe_unused]] auto iteration : state) {
        received.Clear();
        received.Append(message.GetBuf(), message.GetLength());
        KyTferStatusMsg record(512);
        record.Deserialize(&received);
        benchmark::DoNotOptimize(record);
    }
}

void WithTextLengths(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgName("text")->Arg(100)->Arg(4096)->MinTime(0.05)->Repetitions(9)->ReportAggregatesOnly();
}
BENCHMARK(CopyBytes)->Apply(WithTextLengths);
BENCHMARK(Serialize)->Apply(WithTextLengths);
BENCHMARK(FillAndDeserialize)->Apply(WithTextLengths);

}  // namespace
