#include <climits>
#include <cstring>
#include <filesystem>

#include "engine/EngineFixture.h"

namespace fs = std::filesystem;

namespace {

class ValueChange : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        fs::create_directories("/var/tmp/dmp");
    }

    void ChangeNumber(int pointId, unsigned short mmIdx, unsigned int number) {
        // One byte off any alignment, as a platform's packed records are.
        char storage[8] = {};
        memcpy(storage + 1, &number, sizeof number);
        engine->DataChange({pointId, mmIdx, 0, storage + 1});
    }

    void ChangeUnits(int pointId, const std::vector<unsigned short>& units) {
        std::vector<char> storage(2 * units.size() + 1);
        if (!units.empty()) memcpy(storage.data() + 1, units.data(), 2 * units.size());
        engine->DataChange({pointId, 2, static_cast<unsigned short>(units.size()), storage.data() + 1});
    }
};

TEST_F(ValueChange, StringsTakeTheLowBytesUpToTheFirstZero) {
    Start();
    const struct {
        const char* name;
        std::vector<unsigned short> units;
        std::string text;
    } rows[] = {
        {"none", {}, ""},
        {"plain", {0x41, 0x42}, "AB"},
        {"high bytes dropped", {0x1241, 0xFF42}, "AB"},
        {"ended by a low byte of 0", {0x41, 0x4100, 0x42}, "A"},
        {"256 units", std::vector<unsigned short>(256, 'x'), std::string(256, 'x')},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ChangeUnits(8603, row.units);
        EXPECT_EQ(log.Lines().back().text, "Xfer file name pnt(8603) changed(" + row.text + ")");
    }
    ChangeUnits(8603, std::vector<unsigned short>(257, 0x4141));
    EXPECT_EQ(log.Count(3, "Parameter valLength(257) is out of range (>256)"), 1);
    EXPECT_EQ(log.Lines().back().text, "Xfer file name pnt(8603) changed(" + std::string(257, 'A') + ")");
    ChangeUnits(8602, std::vector<unsigned short>(300, 'x'));
    EXPECT_EQ(log.Lines().back().text, "Client file req point(8602) len(0) newVal()");
}

TEST_F(ValueChange, NumbersAndForeignRecords) {
    Start();
    ChangeNumber(8604, 9, 1234);
    EXPECT_EQ(Record().GetBytesRequested(), 1234U) << "whatever the module index and the request";
    const size_t lines = log.Lines().size();
    ChangeNumber(4711, 2, 1);
    for (const int point : {8602, 8603, 8604, 8631})
        engine->DataChange({point, 2, 40, nullptr});
    EXPECT_EQ(Record().GetBytesRequested(), 1234U) << "a record without a value changes nothing";
    EXPECT_EQ(log.Lines().size(), lines + 2) << "the two strings, taken as empty";
}

TEST_F(ValueChange, DmpFollowsTheCardsOwnModuleAlone) {
    Start();
    const std::string flag = "/var/tmp/dmp/dmp_supported";
    const struct {
        unsigned short mmIdx;
        unsigned int value;
        bool there;
    } rows[] = {{1, 1, false}, {2, 0x10000, false}, {2, 7, true}, {1, 0, true}, {2, 0, false}};
    for (const auto& row : rows) {
        WriteFile("/var/tmp/dmp/usb_force_fs", "");
        ChangeNumber(8631, row.mmIdx, row.value);
        EXPECT_EQ(fs::exists(flag), row.there) << row.mmIdx << ": " << row.value;
        EXPECT_TRUE(fs::exists("/var/tmp/dmp/usb_force_fs"));
    }
    EXPECT_EQ(log.Count(5, "st_mai_tfer_hmiDmpSupported pnt(8631) mmIdx(2) value changed(true)"), 1);
}

/// What a value of the request point leads to, for each kind of transaction and after each value before.
TEST_F(ValueChange, RequestPoint) {
    const char kSimulator[] = "Sorrel simulator hack.  Ignore value(";
    const char kRepeat[] = ") ignore";
    const char kNoKind[] = "Current req type is 0";
    const char kNothing[] = "";
    const struct {
        const char* name;
        bool fetching;
        std::vector<const char*> before;
        const char* value;
        const char* lastLine;  ///< part of the last line logged; the point's own line for nothing
        int workers;
    } rows[] = {
        {"no transaction", false, {}, "listing.txt", kNoKind, 0},
        {"READY without one", false, {}, "READY", kNoKind, 0},
        {"simulator", true, {}, "DIRX", kSimulator, 0},
        {"simulator, exactly DIR", true, {}, "DIR", kSimulator, 0},
        {"DIRREQ passes it", true, {}, "DIRREQ", kNothing, 0},
        {"READY", true, {}, "READY", "kick off file fetch thread", 1},
        {"other value", true, {}, "f", kNothing, 0},
        {"outcomes", true, {}, "SUCCESS", kNothing, 0},
        {"repeat", true, {"READY"}, "READY", kRepeat, 1},
        {"repeat of a name", true, {"f"}, "f", kRepeat, 0},
        {"an outcome ends repeats", true, {"READY", "SUCCESS"}, "READY", "kick off", 2},
        {"so does ERROR", true, {"READY", "ERROR"}, "READY", "kick off", 2},
        {"so does the empty value", true, {"READY", ""}, "READY", "kick off", 2},
        {"a simulator value does not", true, {"READY", "DIRX"}, "READY", kRepeat, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        Start();
        device->SetListener(nullptr);
        device->SetFault(SimOperation::FETCH, [] {
            SimFault fault;
            fault.answer = SimAnswer::SILENT;
            fault.stuck = true;
            return fault;
        }());
        if (row.fetching) engine->GetFileFromDevRequest("f", 5);
        for (const char* value : row.before)
            Change(8602, value);
        const size_t linesBefore = log.Texts("DataChange").size();
        Change(8602, row.value);
        const auto lines = log.Texts("DataChange");
        ASSERT_GT(lines.size(), linesBefore);
        if (row.lastLine == kNothing) {
            EXPECT_EQ(lines.size(), linesBefore + 1);
        } else {
            EXPECT_NE(lines.back().find(row.lastLine), std::string::npos) << lines.back();
        }
        EXPECT_TRUE(WaitUntil([&] {
            return static_cast<int>(Written().size()) >= (row.fetching ? 2 : 0) + row.workers;
        })) << "a worker asks the device";
        EXPECT_EQ(engine->WorkerRunning(), row.workers > 0);
        EXPECT_EQ(static_cast<int>(Written().size()), (row.fetching ? 2 : 0) + row.workers);
        TearDown();
    }
}

}  // namespace
