#ifndef INTERLEAVING_SCRIPTEDDEVICE_H
#define INTERLEAVING_SCRIPTEDDEVICE_H

#include <map>
#include <string>

#include "interleaving/World.h"
#include "platform/KyNetUtils.h"
#include "platform/KyPldProxy.h"
#include "platform/KyValChgInfo.h"

/// The managed device: it answers each request as the request's action says, and reports its changes one at a time.
class ScriptedDevice : public KyPldProxy {
    using u16 = unsigned short;
    using u32 = unsigned int;

public:
    explicit ScriptedDevice(World& world)
        : m_world(world),
          m_echo(m_run.Pick({0, 30 * kMillisecond, kNever})),
          m_announces(m_run.Random(2) == 0),
          m_forgets(m_run.Random(2) == 0) {}

    /// The size in a request. It is wrong if the device announces the size.
    int RequestedSize(const Transfer& transfer) const { return m_announces ? 7 : int(transfer.size); }

    /// Reports changes until the device is off.
    void Deliver() {
        m_world.Me().kind = World::Role::DEVICE;
        while (!m_off) {
            const Time due = m_changes.empty() ? kNever : m_changes.begin()->first;
            if (due > m_run.Now()) {
                m_run.Wait(&m_changes, due);
                continue;
            }
            const Change change = m_changes.begin()->second;
            m_changes.erase(m_changes.begin());
            ReportNow(change);
        }
    }

    void SwitchOff() {
        m_off = true;
        m_run.Wake(&m_changes);
    }

    int GetMaiString(std::string& value, u16, u16, u16 mmIdx, u16, u16, short, u32) override {
        const Outside outside;
        value = mmIdx == kModule ? tal_netutils::KyNetUtils::GetMAC() : "another";
        return 0;
    }

    int GetMaiUint32(u32& value, u16, u16, u16, u16, u16, short) override { return Give(value, 1); }
    int GetMaxModuleCount(u32& count, u16, u16) override { return Give(count, kModule); }
    int GetPointReportId(u32& reportId, u16, u16) override { return Give(reportId, 9); }

    int SetMaiString(const char* value, u16, u16 point, u16 mmIdx, u16, u16, short, u32, u32) override {
        const Outside outside;
        const std::string text = value;
        Call("writes " + std::to_string(point) + "=" + text, mmIdx);
        m_world.Told(point, text);
        if (m_echo != kNever) Report(m_echo, {point, text, 0, 0});
        if (point == kRequestPoint) Answer(text);
        return 0;
    }

    int SetMaiUint32(u32 value, u16, u16 point, u16 mmIdx, u16, u16, short, u32) override {
        const Outside outside;
        Call("writes " + std::to_string(point) + "=" + std::to_string(value), mmIdx);
        if (point != kSizePoint) return 0;
        m_world.Told(point, std::to_string(value));
        if (m_echo != kNever) Report(m_echo, {point, "", value, 0});
        const World::Role& me = m_world.Me();
        if (me.kind == World::Role::WORKER && me.transfer->action->fault == Action::LAST_WRITE) Hang();
        return 0;
    }

    void AbortTransfer(u16) override {
        const Outside outside;
        Call("aborts", kModule);
        m_run.Wake(this);
    }

private:
    struct Change {
        u16 point;
        std::string text;
        u32 number;
        int request;  ///< that it answers: dropped when the card asks for something else; 0 for none
    };

    static constexpr u16 kModule = 2, kRequestPoint = 8602, kSizePoint = 8604;
    static constexpr Time kHanging = 250 * kSecond;

    static int Give(u32& out, u32 value) {
        out = value;
        return 0;
    }

    /// Every call is a point, and may take its time.
    void Call(const std::string& what, u16 mmIdx) {
        const bool service = m_world.Me().kind == World::Role::SERVICE;
        m_world.Require(!m_world.stopped || service, "a stopped engine leaves the proxy alone");
        m_world.Require(mmIdx == kModule || m_world.stopping || m_world.shortOfMemory,
                        "the module is known when it is addressed");
        m_run.Point("device", Scheduler::WORK, what);
        if (m_run.Random(8) == 0) m_run.Sleep(10 * kMillisecond);
    }

    void Report(Time delay, const Change& change) {
        m_changes.emplace(m_run.Now() + delay, change);
        m_run.Wake(&m_changes);
    }

    void ReportNow(const Change& change) {
        const bool text = change.point != kSizePoint;
        const std::string shown = text ? change.text : std::to_string(change.number);
        m_run.Point("reports", Scheduler::WORK, std::to_string(change.point) + "=" + shown);
        m_world.Me().before = m_world.current;
        CheckMeant(change);
        const std::u16string units(change.text.begin(), change.text.end());
        const void* const value = text ? static_cast<const void*>(units.data()) : &change.number;
        Inside(), m_world.engine.DataChange({change.point, kModule, u16(units.size()), value});
        CheckMeant(change);
    }

    /// An answer may cross with the next request.
    void CheckMeant(const Change& change) const {
        Transfer* const current = m_world.current;
        if (current != nullptr && change.request != 0 && change.request != current->request)
            current->crossed = true;
    }

    void Answer(const std::string& text) {
        Transfer* const transfer = m_world.Me().transfer;
        if (text == "SUCCESS" && transfer->action->answer == Action::TWICE && !transfer->repeated)
            Repeat(m_run.Pick({0, 10 * kMillisecond, 3 * kSecond}), *transfer);
        const bool asked = transfer != nullptr && text == transfer->name;
        if (!asked && (text != "NONE" || !m_forgets)) return;
        for (auto change = m_changes.begin(); change != m_changes.end();)
            change = change->second.request != 0 ? m_changes.erase(change) : std::next(change);
        if (asked) AnswerTo(*transfer);
    }

    static std::string AnswerOf(const Transfer& transfer) {
        if (transfer.action->kind == Action::FETCH) return "READY";
        return transfer.name == World::kListing ? "l" + std::to_string(transfer.request) : transfer.name;
    }

    void AnswerTo(Transfer& transfer) {
        const Action& action = *transfer.action;
        const bool listing = action.kind == Action::LISTING;
        // After the echo: changes are reported in their order.
        Time delay = (m_echo == kNever ? 0 : m_echo) + m_run.Pick({0, 10 * kMillisecond, 2 * kSecond});
        if (action.answer == Action::LATE) delay = (listing ? 65 : 185) * kSecond;
        if (action.answer == Action::SILENT) return;
        if (action.answer == Action::NONE) return Announce(delay, transfer, "NONE");
        Name(delay, transfer, AnswerOf(transfer), listing ? action : World::kNoFile);
        delay += m_run.Pick({0, 10 * kMillisecond, 5 * kSecond});
        if (action.answer == Action::TWICE && m_run.Random(2) == 0) Repeat(delay, transfer);
        if (action.answer == Action::SECOND_NAME)
            Name(delay, transfer, "second" + AnswerOf(transfer), World::kNoFile);
    }

    void Name(Time delay, const Transfer& transfer, const std::string& name, const Action& action) {
        m_world.named[name] = {&action, transfer.request, transfer.size};
        if (m_world.shortOfMemory) m_world.Add(action, transfer.request, name, transfer.size);
        Announce(delay, transfer, name);
    }

    void Repeat(Time delay, Transfer& transfer) {
        transfer.repeated = true;
        Report(delay, {kRequestPoint, "", 0, transfer.request});
        Announce(delay, transfer, AnswerOf(transfer));
    }

    /// Where own writes are not reported, the point has to change before it can say the same once more.
    void Announce(Time delay, const Transfer& transfer, const std::string& answer) {
        if (m_announces || transfer.action->kind == Action::LISTING)
            Report(delay, {kSizePoint, "", transfer.size, transfer.request});
        if (m_echo == kNever) Report(delay, {kRequestPoint, "", 0, transfer.request});
        Report(delay, {kRequestPoint, answer, 0, transfer.request});
    }

    bool DoGetDevFile(u16, const std::string&, const std::string& fileName) override {
        const Outside outside;
        Call("gets " + fileName, kModule);
        m_world.Asked(fileName);
        const Transfer& transfer = *m_world.Me().transfer;
        const std::string path = World::kLanding + fileName;
        const unsigned size = transfer.size;
        if (transfer.action->delivery == Action::MISSING) return false;
        if (transfer.action->delivery == Action::AFTERWARDS) {
            m_run.Spawn("late file", [this, path, size] {
                m_run.Sleep(5 * kSecond);
                m_world.files[path] = size;
            });
            return false;
        }
        m_world.files.emplace(path, size / 2);
        if (transfer.action->delivery == Action::OTHER_SIZE)
            m_world.files[path] = unsigned(m_run.Pick({0, size - 1, size + 1}));
        else if (Continues(transfer))
            m_world.files[path] = size;
        return true;
    }

    bool DoPutDevFile(u16, const std::string& directory, const std::string& fileName,
                      const std::string& xferFileName) override {
        const Outside outside;
        Call("puts " + directory + fileName + " " + xferFileName, kModule);
        m_world.Pushed(directory, fileName, xferFileName);
        return Continues(*m_world.Me().transfer);
    }

    /// The middle of a transfer. @return false if it fails
    bool Continues(const Transfer& transfer) {
        m_run.Sleep(m_run.Pick({0, 10 * kMillisecond, 3 * kSecond}));
        if (transfer.action->delivery != Action::HANGING) return transfer.action->delivery == Action::WHOLE;
        return !Hang();
    }

    /// @return whether it was aborted
    bool Hang() {
        m_world.hung = true;
        return m_run.Wait(this, m_run.Now() + kHanging);
    }

    World& m_world;
    Scheduler& m_run = m_world.scheduler;
    const Time m_echo;       // how late own writes are reported; kNever for not at all
    const bool m_announces;  // sizes of fetched files
    const bool m_forgets;    // its answers when the card gives up
    bool m_off = false;
    std::multimap<Time, Change> m_changes;
};

#endif
