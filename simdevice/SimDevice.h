#ifndef SIMDEVICE_SIMDEVICE_H
#define SIMDEVICE_SIMDEVICE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/KyPldProxy.h"
#include "platform/KyValChgInfo.h"
#include "simdevice/SimAbort.h"
#include "simdevice/SimChangeQueue.h"
#include "simdevice/SimDeviceBuilder.h"
#include "simdevice/SimDeviceConfig.h"
#include "simdevice/SimFault.h"
#include "simdevice/SimFaults.h"
#include "simdevice/SimFiles.h"
#include "simdevice/SimJournal.h"
#include "simdevice/SimLateAnswers.h"
#include "simdevice/SimLine.h"
#include "simdevice/SimPointStore.h"
#include "simdevice/SimPoints.h"

/// A managed device made of a directory of real files, and at the same time the card's proxy to it.
///
/// It has the transfer points, answers requests on them, lets its files be fetched and takes pushed ones, and
/// reports every change of a point, the card's own writes included. It shows faults on request.
///
/// States: running from the moment it is built; aborted, by Abort, for ever. An aborted device still reads,
/// writes and reports its points, but it answers no request and transfers nothing.
///
/// Any thread may call any operation. A point operation returns without waiting for the listener, except
/// under the fault that asks for it, and is only as slow as its own faults; a directory request also takes
/// the time of reading the directory. The file operations block while they transfer. Simulated time passes in
/// `usleep` alone, and nothing reads a clock for it. No call may be running when the device is destroyed; the
/// destructor ends the device's threads, and waits for a running call of the listener.
class SimDevice : public KyPldProxy {
public:
    using Builder = SimDeviceBuilder;
    using Listener = SimChangeQueue::Listener;
    static constexpr SimTransport SORREL_485 = SimTransport::SORREL_485;
    static constexpr SimTransport USB_ONLY = SimTransport::USB_ONLY;

    ~SimDevice() override;

    // Change reports

    /// Names the receiver of the change reports, or none (null). It is called in order, one call at a time,
    /// from the delivery thread, or from DeliverPending; it must not throw. Values lie at any address, odd
    /// ones too, and end with their last byte. Changes that come up for delivery without a listener are
    /// dropped. When this returns, the listener before is not running any more (unless it is the caller).
    void SetListener(Listener listener) { m_changes.SetListener(std::move(listener)); }

    /// Holds changes back; when this returns, the listener is not running (unless it is the caller).
    void PauseDelivery() { m_changes.SetPaused(true); }
    void ResumeDelivery() { m_changes.SetPaused(false); }

    /// Waits until every change is delivered and no late answer is due any more.
    ///
    /// @param realMilliseconds  longest wait, in real time
    /// @return false if there still was something at the end
    bool WaitIdle(unsigned int realMilliseconds) { return m_changes.WaitIdle(realMilliseconds); }

    /// Manual delivery: readable while changes wait; for polling only. -1 with a delivery thread.
    int EventFd() const { return m_changes.EventFd(); }

    /// Manual delivery: reports the changes that wait now, on the calling thread.
    ///
    /// @return their number; 0 while paused, from inside the listener, and with a delivery thread
    std::size_t DeliverPending() { return m_changes.DeliverPending(); }

    // What the device does by itself

    /// Writes a string point and reports it. @param mmIdx  0 for the card's module index
    void ChangeString(unsigned short pointId, const std::string& text, unsigned short mmIdx = 0);

    /// Writes a number point and reports it.
    void ChangeUint32(unsigned short pointId, unsigned int value);

    /// Reports the DMP point for a module index, 0 for the card's; keeps the value if it is for the card.
    void ChangeDmp(unsigned short value, unsigned short mmIdx = 0);

    // What has become of its points

    /// Value of a string point, empty if there is none. @param mmIdx  0 for the card's module index
    std::string GetString(unsigned short pointId, unsigned short mmIdx = 0) const;

    /// Value of a number point, 0 if there is none.
    unsigned int GetUint32(unsigned short pointId) const;

    /// Which of "NONE", "SUCCESS" and "ERROR" the card wrote last to the request point; empty before the
    /// first.
    std::string LastOutcome() const;

    /// How often the card wrote that outcome, or the empty value, to the request point.
    unsigned int OutcomeCount(const std::string& outcome) const;

    /// Text of the last listing; empty before the first directory request.
    std::string ListingText() const { return m_files.ListingText(); }

    // Faults

    /// Makes all transfers of one kind go as `fault` says, from the next request on.
    void SetFault(SimOperation operation, const SimFault& fault) { m_faults.Set(operation, fault); }

    /// Makes accesses of a point fail; a failed write changes nothing.
    ///
    /// @param status  what the access returns; not 0
    /// @param times   number of accesses that fail; negative for all from now on
    /// @param skip    number of accesses that still succeed before
    void FailPoint(SimAccess access, unsigned short pointId, int status, int times = -1, int skip = 0) {
        m_faults.FailPoint(access, pointId, status, times, skip);
    }

    /// Makes every access of a point take so many milliseconds.
    void SlowPoint(SimAccess access, unsigned short pointId, unsigned int delayMs) {
        m_faults.SlowPoint(access, pointId, delayMs);
    }

    /// Forgets all faults; transfers under way keep theirs.
    void ClearFaults() { m_faults.Clear(); }

    /// Speed of the line in bytes per second, for running transfers too; 0 for unlimited.
    void SetLineRate(std::uint64_t bytesPerSecond) { m_line.SetRate(bytesPerSecond); }

    /// Aborts the device: ends running transfers and waits within 10 ms and refuses all later ones; late
    /// answers are not given any more. Twice is fine.
    void Abort() { m_abort.Trip(); }

    // Journal

    /// The card's calls so far, in the order in which they began; empty if the builder asked for no journal.
    std::vector<SimCall> Calls() const { return m_journal.Calls(); }
    void ClearCalls() { m_journal.Clear(); }

    // The card's side

    int GetMaiString(std::string& value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm, unsigned int option) override;
    int GetMaiUint32(unsigned int& value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm) override;
    int SetMaiString(const char* value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm, unsigned int option,
                     unsigned int timeout) override;
    int SetMaiUint32(unsigned int value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm, unsigned int timeout) override;
    int GetMaxModuleCount(unsigned int& count, unsigned short device, unsigned short reportId) override;
    int GetPointReportId(unsigned int& reportId, unsigned short device, unsigned short pointId) override;

    /// Ends the file calls under way within 10 ms: they return false, and what a fetch has delivered stays.
    /// Later calls, points and answers go on as before. Another device's identifier ends nothing.
    void AbortTransfer(unsigned short device) override;

protected:
    bool DoGetDevFile(unsigned short device, const std::string& option, const std::string& fileName) override;
    bool DoPutDevFile(unsigned short device, const std::string& directory, const std::string& fileName,
                      const std::string& xferFileName) override;

private:
    friend class SimDeviceBuilder;

    explicit SimDevice(const SimDeviceConfig& config);

    template <typename Work>
    int Recorded(SimCall call, Work work);
    int Admit(SimAccess access, unsigned short device, unsigned short pointId, bool plainAddress);
    void HandleRequest(const std::string& text);
    void Answer(SimOperation operation, const std::string& text);
    void GiveAnswer(const SimFault& fault, const std::string& word, std::uint64_t size);
    int AdmitTransfer(unsigned short device, const SimFault& fault, const SimAbort::Call& call) const;
    int Deliver(const std::string& fileName, const SimFault& fault, const SimAbort::Call& call);
    int Accept(const std::string& path, const std::string& xferFileName, const SimFault& fault,
               const SimAbort::Call& call);
    unsigned short IndexOr(unsigned short mmIdx) const;

    const SimDeviceConfig m_config;

    // Each of these has a lock of its own.
    SimAbort m_abort;
    SimFaults m_faults;
    SimJournal m_journal;
    SimChangeQueue m_changes;
    SimPointStore m_points;
    SimFiles m_files;
    SimLine m_line;
    SimLateAnswers m_late;

    mutable std::mutex m_outcomeMutex;  // guards the outcomes; a leaf
    std::map<std::string, unsigned int> m_outcomeCounts;
    std::string m_lastOutcome;
};

#endif
