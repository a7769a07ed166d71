#ifndef ENGINE_ENGINEFIXTURE_H
#define ENGINE_ENGINEFIXTURE_H

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "engine/KyTferClient.h"
#include "engine/RecordingProxy.h"
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

/// An engine that talks to a simulated device through a recording proxy. The card's directories are empty at first.
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

    /// Replaces device and engine by new ones, with an empty log and fresh transfer directories. Changes of points
    /// reach the engine from here on.
    void Build();

    /// Builds with a file "f" of that size on the device, and initialises the engine. No call is recorded after it.
    void Start(size_t size = 1000);

    /// Waits until no worker runs and the device has nothing left to report.
    bool WaitForWorker();

    /// Waits for this Outcome of the record, and then as WaitForWorker.
    bool WaitForOutcome(const std::string& outcome);

    Status Record() { return engine->GetStatus(""); }

    /// The recorded calls without the reads.
    Strings Written() const;

    /// Waits for a request's own two writes, so many more, and the end of the worker.
    /// @return what follows the first two
    Strings WrittenAfterRequest(size_t count);

    /// The lines of level 3 since Build.
    Strings Errors() const;

    TempDir files;
    std::string bytes;  ///< of the file "f"
    std::optional<LogCapture> log{std::in_place};
    std::unique_ptr<SimDevice> device;
    std::optional<RecordingProxy> proxy;
    std::unique_ptr<KyTferClient> engine;

private:
    SimDevice::Builder m_builder{files.Path()};
};

/// Status and text of a record, such as "complete: text".
std::string Outcome(const Status& record);

/// The outcome of a whole fetch.
std::string Fetched(const std::string& name);

SimFault Fault(void (*set)(SimFault&));

#endif
