// Every pair of the actions below, alone and with a third, under many schedules.
//
//   KY_INTERLEAVINGS="N FIRST"  runs each scenario with N seeds from FIRST on
//   KY_REPLAY="SCENARIO SEED"   runs that one only and shows each of its steps
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "interleaving/ScriptedDevice.h"

namespace {

using A = Action;
using Status = KyTferStatusMsg;

const Action kActions[] = {
    {"nothing", A::NOTHING},
    {"fetch", A::FETCH},
    {"fetch, silent", A::FETCH, A::SILENT},
    {"fetch, NONE", A::FETCH, A::NONE},
    {"fetch, late READY", A::FETCH, A::LATE},
    {"fetch, READY twice", A::FETCH, A::TWICE},
    {"fetch, other size", A::FETCH, A::READY, A::OTHER_SIZE},
    {"fetch, no file", A::FETCH, A::READY, A::MISSING},
    {"fetch, file afterwards", A::FETCH, A::READY, A::AFTERWARDS},
    {"fetch, hanging", A::FETCH, A::READY, A::HANGING},
    {"fetch, not moved", A::FETCH, A::READY, A::WHOLE, A::MOVE},
    {"fetch, no monitor", A::FETCH, A::READY, A::WHOLE, A::MONITOR_THREAD},
    {"fetch, no monitor, silent", A::FETCH, A::SILENT, A::WHOLE, A::MONITOR_THREAD},
    {"fetch, no worker", A::FETCH, A::READY, A::WHOLE, A::WORKER_THREAD},
    {"nine fetches, hanging last writes", A::FETCH, A::READY, A::WHOLE, A::LAST_WRITE, 9},
    {"listing", A::LISTING},
    {"listing, silent", A::LISTING, A::SILENT},
    {"listing, NONE", A::LISTING, A::NONE},
    {"listing, late name", A::LISTING, A::LATE},
    {"listing, named twice", A::LISTING, A::TWICE},
    {"listing, second name", A::LISTING, A::SECOND_NAME},
    {"listing, no monitor, NONE", A::LISTING, A::NONE, A::WHOLE, A::MONITOR_THREAD},
    {"push", A::PUSH},
    {"push, refused", A::PUSH, A::READY, A::MISSING},
    {"push, hanging", A::PUSH, A::READY, A::HANGING},
    {"push, no worker", A::PUSH, A::READY, A::WHOLE, A::WORKER_THREAD},
    {"abandon", A::ABANDON},
    {"status", A::STATUS, A::READY, A::WHOLE, A::NO_FAULT, 5},
    {"stop", A::STOP},
};
constexpr int kCount = int(std::size(kActions));

const char* const kThirds[] = {"nothing", "abandon", "push", "stop"};
constexpr int kScenarios = kCount * kCount * int(std::size(kThirds));

/// A scenario is a number, and stands for two or three actions.
std::array<const Action*, 3> ActionsOf(int scenario) {
    const std::string third = kThirds[scenario / kCount / kCount];
    const auto named = [&](const Action& action) { return action.name == third; };
    return {&kActions[scenario % kCount], &kActions[scenario / kCount % kCount],
            std::find_if(std::begin(kActions), std::end(kActions), named)};
}

/// One engine, its device and its callers, from Init to Stop.
class Run {
public:
    Run(int scenario, unsigned long long seed, bool trace)
        : m_actions(ActionsOf(scenario)),
          m_world(seed * kScenarios + unsigned(scenario), trace),
          m_device(m_world) {}

    /// @return what is wrong; empty for nothing
    std::string Do() {
        m_early = m_run.Random(8) == 0;
        m_together = m_run.Random(3) != 0;
        m_run.Spawn("device", [this] { m_device.Deliver(); });
        m_run.Spawn("service", [this] { Serve(); });
        return m_run.Run();
    }

private:
    void Serve() {
        constexpr Time kQuiet = 1000 * kSecond;  // longer than all limits
        static const Action kLast = {"last fetch", A::FETCH};
        Inside(), m_world.engine.GetStatus("");
        if (m_early) StartCallers();
        Inside(), m_world.engine.Init(3, &m_device);
        if (!m_early) StartCallers();
        m_world.Me().kind = World::Role::CALLER;
        while (m_callers > 0)
            m_run.Wait(&m_callers);
        m_run.Sleep(kQuiet);
        m_world.memoryBack = true;
        if (!m_world.stopping) Do(kLast);
        m_run.Sleep(kQuiet);
        m_world.CheckEnd();
        Stop();
        m_device.SwitchOff();
    }

    void StartCallers() {
        if (m_run.Random(2) == 0) m_world.engine.SetPollPause(20);
        for (const Action* action : m_actions) {
            if (action->kind == A::NOTHING) continue;
            ++m_callers;
            m_run.Spawn(action->name, [this, action] { Call(*action); });
        }
    }

    void Call(const Action& action) {
        m_world.Me().kind = World::Role::CALLER;
        m_run.Sleep(m_together ? m_run.Pick({0, 10 * kMillisecond, kSecond})
                               : m_run.Pick({0, 3 * kSecond, 62 * kSecond, 182 * kSecond}));
        for (int i = 0; i < action.times; ++i) {
            if (m_run.Random(2) == 0) m_run.DisturbSoon();
            Do(action);
        }
        --m_callers;
        m_run.Wake(&m_callers);
    }

    void Do(const Action& action) {
        if (action.kind == A::STOP) return Stop();
        if (action.kind == A::ABANDON) {
            const std::string reason = m_run.Random(2) == 0 ? "" : "a reason";
            const Status record = (Inside(), m_world.engine.AbandonTransaction(reason));
            m_world.Require(record.GetStatus() != Status::TFER_STATUS_INPROGRESS,
                            "nothing is in progress when it has been abandoned");
        } else if (action.kind == A::STATUS) {
            Inside(), m_world.engine.GetStatus("");
            m_run.Sleep(m_run.Pick({0, kSecond, 50 * kSecond}));
        } else {
            for (int tries = 1000; !Request(action); --tries) {
                m_world.Require(tries > 0, "a request is accepted in the end");
                m_run.Wait(&m_world.rows, m_run.Now() + 7 * kSecond);
            }
        }
    }

    /// @return false if it was refused and has to be repeated
    bool Request(const Action& action) {
        const int request = ++m_requests;
        const bool alone = m_asking++ == 0 && !m_world.Busy();
        const int rows = m_world.rows;
        World::Role& me = m_world.Me();
        const std::string name = action.kind == A::LISTING
                                     ? World::kListing
                                     : "fp"[action.kind == A::PUSH] + std::to_string(request);
        me.transfer = &m_world.Add(action, request, name, 100U * unsigned(request));
        me.story.clear();
        const Transfer& transfer = *me.transfer;
        if (m_world.shortOfMemory) m_world.current = me.transfer;
        if (action.kind == A::PUSH) m_world.files[World::kSource + transfer.name] = transfer.size;
        const Status result = Ask(transfer);
        me.transfer = nullptr;
        --m_asking;
        if (transfer.began != 0 || result.GetStatus() == Status::TFER_STATUS_INPROGRESS) return true;
        if (m_world.shortOfMemory) {
            m_world.Require(!m_world.memoryBack, "the last fetch is accepted");
            m_world.Require(m_world.files.count(World::kStaging + name) == 0, "a refused file does not stay");
            return true;
        }
        const bool unbound = result.GetStatusMsg() == "LOGIC ERROR - KyTferRespClient not initialized";
        const bool others = !alone || m_world.Busy() || request != m_requests || rows != m_world.rows;
        m_world.Require(unbound ? m_early || m_world.stopping
                                : result.GetStatusMsg() == "Transaction already in progress" && others,
                        "a request is refused for a reason: " + result.GetStatusMsg());
        return m_world.stopping;
    }

    Status Ask(const Transfer& transfer) {
        const Inside inside;
        if (transfer.action->kind == A::LISTING) return m_world.engine.GetDirectoryFromDevRequest();
        if (transfer.action->kind == A::FETCH)
            return m_world.engine.GetFileFromDevRequest(transfer.name, m_device.RequestedSize(transfer));
        return m_world.engine.PutFileToDevRequest("/up", transfer.name);
    }

    void Stop() {
        m_world.stopping = true;
        const Time due = m_run.Now() + kPatience;
        Inside(), m_world.engine.Stop();
        m_world.stopped = true;
        m_world.CheckStopped(due);
    }

    const std::array<const Action*, 3> m_actions;
    World m_world;
    Scheduler& m_run = m_world.scheduler;
    ScriptedDevice m_device;
    bool m_early = false;     // callers do not wait for Init
    bool m_together = false;  // they begin within a second
    int m_callers = 0;        // that have not ended
    int m_requests = 0;
    int m_asking = 0;  // requests under way
};

/// @return false if the run has failed
bool Check(int scenario, unsigned long long seed, bool trace) {
    auto run = std::make_unique<Run>(scenario, seed, trace);
    const std::string failure = run->Do();
    if (failure.empty()) return true;
    // Never destroyed, because its fibers are in the middle of something.
    static auto* const s_failed = new std::vector<std::unique_ptr<Run>>;
    s_failed->push_back(std::move(run));
    ADD_FAILURE() << failure;
    for (const Action* action : ActionsOf(scenario))
        std::cout << "  " << action->name << "\n";
    std::cout << "  KY_REPLAY=\"" << scenario << " " << seed << "\" shows how\n";
    return false;
}

TEST(Interleaving, EveryPairAndSomeTriples) {
    const char* const replay = std::getenv("KY_REPLAY");
    const char* const more = std::getenv("KY_INTERLEAVINGS");
    int scenario = 0;
    unsigned long long seed = 0;
    Check(scenario, seed,
          false);  // makes static objects first, so that each replay is the same
    if (replay != nullptr && std::istringstream(replay) >> scenario >> seed) {
        Check(scenario, seed, true);
        return;
    }
    unsigned long long seeds = 4;
    std::istringstream(more == nullptr ? "" : more) >> seeds >> seed;
    for (; seeds > 0; --seeds, ++seed) {
        for (scenario = 0; scenario < kScenarios; ++scenario)
            if (!Check(scenario, seed, false)) return;
    }
}

}  // namespace
