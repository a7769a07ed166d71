#ifndef ENGINE_ENGINEFIXTURE_H
#define ENGINE_ENGINEFIXTURE_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "engine/GateProxy.h"
#include "engine/KyTferClient.h"
#include "simdevice/SimDevice.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/SteppedTime.h"
#include "support/SystemFaults.h"
#include "support/TempDir.h"

using Status = KyTferStatusMsg;

/// An engine and the simulated device it talks to, in a sandbox whose card directories are empty at first.
class EngineTest : public ::testing::Test {
protected:
    static constexpr char kLanding[] = "/var/local/tal/pldserver/3/";
    static constexpr char kDownload[] = "/var/local/tal/pldserver/3/tferFiles/";

    void SetUp() override;
    void TearDown() override;

    /// The device's description, for a test to change before Build.
    SimDevice::Builder& Device() { return m_builder; }

    /// Makes device and engine; changes of points reach the engine from here on.
    void Build();

    /// Build, and Init of the engine, which must succeed; the journal is empty afterwards.
    void Start();

    /// Puts a file of that size on the device and returns its bytes.
    std::string PutOnDevice(const std::string& name, size_t size);

    /// Requests a fetch and waits until its monitor has taken the time.
    Status Request(const std::string& name, int size);

    /// Waits until no thread of the engine runs and the device has nothing left to report.
    bool WaitUntilQuiet();

    /// Waits until that many threads of the engine run.
    bool WaitForThreads(int count);

    /// Waits until the record's status is another than in progress.
    bool WaitUntilEnded();

    Status Record() { return engine->GetStatus(""); }

    /// What the card wrote to the points since Start, as "point=value" in order, file calls as "get name".
    std::vector<std::string> Written() const;

    /// Waits until a thread of the process carries that name.
    static bool WaitForThreadNamed(const std::string& name);

    /// A value change of a string point, as a device reports it.
    void Change(unsigned short pointId, const std::string& text);

    TempDir files;
    LogCapture log;
    std::unique_ptr<SimDevice> device;
    std::unique_ptr<GateProxy> proxy;
    std::unique_ptr<KyTferClient> engine;

private:
    SimDevice::Builder m_builder{files.Path()};
    int m_threadsWithoutEngine = 0;
};

/// "complete: text" and so on, for comparing a record in one go.
std::string Outcome(const Status& record);

#endif
