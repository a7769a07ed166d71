#include <cstring>

#include "engine/EngineFixture.h"

namespace {

class ValueChange : public EngineTest {
protected:
    void ChangeNumber(int pointId, unsigned short mmIdx, unsigned int number) {
        // Unaligned, as in a platform's packed records.
        char storage[8] = {};
        memcpy(storage + 1, &number, sizeof number);
        engine->DataChange({pointId, mmIdx, 0, storage + 1});
    }

    /// A 16-bit flag and the 16 bits after it.
    void ChangeDmp(unsigned short mmIdx, unsigned short flag, unsigned short behind) {
        const unsigned short storage[] = {flag, behind};
        engine->DataChange({8631, mmIdx, 0, storage});
    }

    void ChangeString(int pointId, const std::vector<unsigned short>& units) {
        std::vector<char> storage(2 * units.size() + 1);
        if (!units.empty()) memcpy(storage.data() + 1, units.data(), 2 * units.size());
        engine->DataChange({pointId, 2, static_cast<unsigned short>(units.size()), storage.data() + 1});
    }

    void Request(const std::string& text) { ChangeString(8602, {text.begin(), text.end()}); }
};

TEST_F(ValueChange, StringsTakeTheLowBytesUpToTheFirstZero) {
    Start();
    const std::string name = "Xfer file name pnt(8603) changed(";
    const struct {
        int point;
        std::vector<unsigned short> units;
        std::string line;
    } rows[] = {
        {8603, {}, name + ")"},
        {8603, {0x1241, 0xFF42}, name + "AB)"},
        {8603, {0x41, 0x4100, 0x42}, name + "A)"},
        {8603, std::vector<unsigned short>(256, 'x'), name + std::string(256, 'x') + ")"},
        {8603, std::vector<unsigned short>(257, 0x4141), name + std::string(257, 'A') + ")"},
        {8602, std::vector<unsigned short>(300, 'x'), "Client file req point(8602) len(0) newVal()"},
    };
    for (const auto& row : rows) {
        ChangeString(row.point, row.units);
        EXPECT_EQ(log->Texts("DataChange").back(), row.line);
    }
    EXPECT_EQ(log->Count(3, "Parameter valLength(257) is out of range (>256)"), 1);
}

TEST_F(ValueChange, NumbersAndForeignRecords) {
    Start();
    ChangeNumber(8604, 9, 1234);
    EXPECT_EQ(Record().GetBytesRequested(), 1234U) << "whatever the module index and the request";
    const size_t lines = log->Lines().size();
    ChangeNumber(4711, 2, 1);
    for (const int point : {8602, 8603, 8604, 8631})
        engine->DataChange({point, 2, 40, nullptr});
    EXPECT_EQ(Record().GetBytesRequested(), 1234U) << "a record without a value changes nothing";
    EXPECT_EQ(log->Lines().size(), lines + 2) << "the two strings, taken as empty";
}

/// A worker writes the size 0 at its end. The device may report this write in the next transaction. This report is no
/// announcement. A second 0 is an announcement, and so is the first 0 if the write has failed.
TEST_F(ValueChange, ReportOfAnOwnWriteIsNoAnnouncement) {
    for (const bool fails : {false, true}) {
        SCOPED_TRACE(fails);
        Start();
        device->SetListener(nullptr);
        engine->GetFileFromDevRequest("f", 1000);
        if (fails) proxy->Fail("8604=0", 7);
        Request("READY");
        ASSERT_TRUE(WaitForOutcome(Fetched("f")));
        engine->GetFileFromDevRequest("g", 7);
        SteppedTime::Advance(1s);  // the first monitor may sleep for another
        ChangeNumber(8604, 2, 0);
        EXPECT_EQ(Record().GetBytesRequested(), fails ? 0U : 7U);
        ChangeNumber(8604, 2, 0);
        EXPECT_EQ(Record().GetBytesRequested(), 0U);
    }
}

TEST_F(ValueChange, DmpFollowsTheCardsOwnModuleAlone) {
    Start();
    WriteFile("/var/tmp/dmp/usb_force_fs", "");
    const struct {
        unsigned short mmIdx;
        unsigned short flag;
        bool there;
    } rows[] = {{1, 1, false}, {2, 0, false}, {2, 7, true}, {1, 0, true}, {2, 0, false}};
    for (const auto& row : rows) {
        ChangeDmp(row.mmIdx, row.flag, 1);
        EXPECT_EQ(fs::exists("/var/tmp/dmp/dmp_supported"), row.there) << row.mmIdx << ": " << row.flag;
    }
    EXPECT_TRUE(fs::exists("/var/tmp/dmp/usb_force_fs"));
}

/// The effect of a value depends on the transaction and on the value before.
TEST_F(ValueChange, RequestPoint) {
    const struct {
        const char* name;
        bool fetching;
        Strings before;
        const char* value;
        const char* lastLine;  ///< part of the last line logged
        size_t workers;
    } rows[] = {
        {"no transaction", false, {}, "READY", "Current req type is 0", 0},
        {"simulator", true, {}, "DIRX", "Sorrel simulator hack.  Ignore value(", 0},
        {"DIRREQ passes it", true, {}, "DIRREQ", "newVal(DIRREQ)", 0},
        {"READY", true, {}, "READY", "kick off file fetch thread", 1},
        {"other value", true, {}, "f", "newVal(f)", 0},
        {"repeat", true, {"READY"}, "READY", ") ignore", 1},
        {"an outcome ends repeats", true, {"READY", "SUCCESS"}, "READY", "kick off", 2},
        {"so does ERROR", true, {"READY", "ERROR"}, "READY", "kick off", 2},
        {"so does the empty value", true, {"READY", ""}, "READY", "kick off", 2},
        {"a simulator value does not", true, {"READY", "DIRX"}, "READY", ") ignore", 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Start();
        device->SetListener(nullptr);
        device->SetFault(SimOperation::FETCH, Fault([](SimFault& f) { f.stuck = true; }));
        if (row.fetching) engine->GetFileFromDevRequest("f", 5);
        for (const std::string& value : row.before)
            Request(value);
        Request(row.value);
        EXPECT_NE(log->Texts("DataChange").back().find(row.lastLine), std::string::npos);
        EXPECT_EQ(engine->WorkerRunning(), row.workers > 0);
        const size_t calls = (row.fetching ? 2 : 0) + row.workers;
        EXPECT_TRUE(WaitUntil([&] { return Written().size() >= calls; })) << "a worker asks the device";
        EXPECT_EQ(Written().size(), calls);
    }
}

/// The device may answer before the request returns. READY is no answer to a listing request. An answer to a refused
/// request is no answer to the next one.
TEST_F(ValueChange, AnswerBeforeTheListingRequestReturns) {
    const struct {
        const char* value;
        bool refused;
        int fetches;
    } rows[] = {{"READY", false, 0}, {"old.txt", true, 0}, {"new.txt", false, 1}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.value);
        Start();
        device->SetListener(nullptr);
        int requests = 0;
        proxy->OnCall([&](const std::string& call) {
            if (call != "8602=DIRREQ" || ++requests > 1) return 0;
            Request(row.value);
            return row.refused ? 7 : 0;
        });
        engine->GetDirectoryFromDevRequest();
        if (row.refused) engine->GetDirectoryFromDevRequest();
        EXPECT_TRUE(WaitForWorker());
        EXPECT_EQ(log->Count(5, "request file("), row.fetches);
    }
}

TEST_F(ValueChange, RepeatedReadyStartsEightWorkersAtMost) {
    Start();
    device->SetListener(nullptr);
    device->SetFault(SimOperation::FETCH, Fault([](SimFault& f) { f.stuck = true; }));
    engine->GetFileFromDevRequest("f", 5);
    for (int i = 0; i < 20; ++i) {
        Request("READY");
        Request("");
    }
    EXPECT_EQ(log->Count(3, "Could not start thread(t-getFileWorker) error(11)"), 12);
}

/// The engine once took the "NONE" that Init writes for the device's answer.
TEST_F(ValueChange, DeviceThatReportsNoOwnWritesSaysNone) {
    Build();
    device->SetListener(nullptr);
    engine->Init(3, device.get());
    engine->GetDirectoryFromDevRequest();
    Request("NONE");
    EXPECT_TRUE(WaitForOutcome("failed: File transfer Failed - timedout"));
}

}  // namespace
