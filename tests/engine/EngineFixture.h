#ifndef ENGINE_ENGINEFIXTURE_H
#define ENGINE_ENGINEFIXTURE_H

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "engine/KyTferClient.h"
#include "simdevice/SimDevice.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/SteppedTime.h"
#include "support/SystemFaults.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

using Status = KyTferStatusMsg;
using Strings = std::vector<std::string>;

/// An engine and the simulated device it talks to, in a sandbox whose card directories are empty at first.
class EngineTest : public ::testing::Test {
protected:
    static constexpr char kLanding[] = "/var/local/tal/pldserver/3/";
    static constexpr char kDownload[] = "/var/local/tal/pldserver/3/tferFiles/";
    static constexpr char kNotInitialized[] = "failed: LOGIC ERROR - KyTferRespClient not initialized";
    static constexpr char kTimedOut[] = "failed: File transfer Failed - timeout";
    static constexpr char kNothingYet[] = "in progress: In Progress - No progress to report";
    static constexpr char kInProgress[] = "failed: Transaction already in progress";

    void SetUp() override;
    void TearDown() override;

    /// The device's description, for a test to change before Build.
    SimDevice::Builder& Device() { return m_builder; }

    /// Makes device and engine, in the place of those before, with an empty log and fresh transfer
    /// directories. Changes of points reach the engine from here on.
    void Build();

    /// Build, with a file "f" of that size on the device, and Init of the engine, which must succeed; the
    /// journal is empty afterwards.
    void Start(size_t size = 1000);

    /// Requests a fetch and waits until its monitor has taken the time.
    Status Request(const std::string& name, int size);

    /// Waits until no thread of the engine runs and the device has nothing left to report.
    bool WaitUntilQuiet() { return WaitForThreads(0) && device->WaitIdle(10000); }

    /// Waits until that many threads of the engine run.
    bool WaitForThreads(int count) const;

    /// Waits until no worker runs and the device has nothing left to report.
    bool WaitForWorker();

    /// Waits until the record's Outcome is that one.
    bool WaitForOutcome(const std::string& outcome);

    Status Record() { return engine->GetStatus(""); }

    /// What the card wrote to the points since Start, as "point=value" in order, file calls as "get name".
    Strings Written() const;

    /// Waits until a request's own two writes and so many more are Written, and for the worker.
    /// @return those that follow the first two
    Strings WrittenAfterRequest(size_t count);

    /// The lines of level 3 since Build.
    Strings Errors() const;

    TempDir files;
    std::string bytes;  ///< of the file "f"
    std::optional<LogCapture> log{std::in_place};
    std::unique_ptr<SimDevice> device;
    std::unique_ptr<KyTferClient> engine;

private:
    SimDevice::Builder m_builder{files.Path()};
    int m_threadsWithoutEngine = 0;
};

/// "complete: text" and so on, for comparing a record in one go.
std::string Outcome(const Status& record);

/// The outcome of a whole fetch.
std::string Fetched(const std::string& name);

SimFault Fault(void (*set)(SimFault&));

#endif
