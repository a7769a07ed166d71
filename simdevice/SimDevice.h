#ifndef SIMDEVICE_SIMDEVICE_H
#define SIMDEVICE_SIMDEVICE_H

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/KyPldProxy.h"
#include "platform/KyValChgInfo.h"
#include "simdevice/SimAbort.h"
#include "simdevice/SimChanges.h"
#include "simdevice/SimDeviceBuilder.h"
#include "simdevice/SimFaults.h"
#include "simdevice/SimFiles.h"
#include "simdevice/SimPoints.h"

/// A simulated managed device, and the card's proxy to it. Its files are those of a real directory.
///
/// The device has the transfer points and answers requests on them. The card can fetch files from the device and
/// push files to it. The device reports every change of a point, also the writes of the card. SetFault(),
/// FailPoint() and SlowPoint() make the device misbehave.
///
/// States: running from its construction; aborted for ever after Abort. An aborted device still reads, writes
/// and reports its points, but it answers no request and transfers nothing.
///
/// Any thread may call any operation. A point operation does not wait for the listener, except with the fault
/// `answerBeforeReturn`. It takes as long as the delays of SlowPoint(); a write that requests the listing also reads
/// the directory. The file operations block while they transfer. The device simulates time with `usleep` only and reads
/// no clock. The caller ends all calls before it destroys the device. The destructor joins the device's threads and
/// waits for a running call of the listener.
class SimDevice : public KyPldProxy {
public:
    using Builder = SimDeviceBuilder;
    using Listener = SimChangeQueue::Listener;
    static constexpr SimTransport SORREL_485 = SimTransport::SORREL_485;
    static constexpr SimTransport USB_ONLY = SimTransport::USB_ONLY;

    ~SimDevice() override;

    // Change reports

    /// Sets the receiver of the change reports; null for none. The delivery thread or DeliverPending calls it,
    /// in order, one call at a time; it must not throw. Values can be unaligned; their allocation ends at
    /// their last byte. Changes that are due without a listener are dropped. When this returns, the previous
    /// listener does not run any more (unless it is the caller).
    void SetListener(Listener listener) { m_changes.SetListener(std::move(listener)); }

    /// Holds the change reports back until the delivery is resumed.
    void PauseDelivery() { m_changes.SetPaused(true); }
    void ResumeDelivery() { m_changes.SetPaused(false); }

    /// Waits until every change is delivered and no late answer is due.
    ///
    /// @param realMilliseconds  longest wait, in real time
    /// @return false if the wait has timed out
    bool WaitIdle(unsigned int realMilliseconds) { return m_changes.WaitIdle(realMilliseconds); }

    /// Manual delivery: readable while changes are queued; for polling only. Otherwise -1.
    int EventFd() const { return m_changes.EventFd(); }

    /// Manual delivery: reports the changes that are queued now, on the calling thread.
    ///
    /// @return their number; 0 inside the listener, and with a delivery thread
    std::size_t DeliverPending() { return m_changes.DeliverPending(); }

    // Actions of the device

    /// Writes a string point and reports it. @param mmIdx  0 for the card's module index
    void ChangeString(unsigned short pointId, const std::string& text, unsigned short mmIdx = 0);

    /// Writes a number point and reports it.
    void ChangeUint32(unsigned short pointId, unsigned int value);

    /// Reports the DMP point for a module index, 0 for the card's. Stores the value only for the card's.
    void ChangeDmp(unsigned short value, unsigned short mmIdx = 0);

    // State

    /// Value of a string point, empty if there is none. @param mmIdx  0 for the card's module index
    std::string GetString(unsigned short pointId, unsigned short mmIdx = 0) const;

    /// Text of the last listing; empty before the first directory request.
    std::string ListingText() const { return m_files.ListingText(); }

    // Faults

    /// Sets the faults of one kind of transfer, from the next request on.
    void SetFault(SimOperation operation, const SimFault& fault) { m_faults.Set(operation, fault); }

    /// Makes all accesses of this kind of a point fail with the status, which is not 0. A failed write changes nothing.
    void FailPoint(SimAccess access, unsigned short pointId, int status) {
        m_faults.FailPoint(access, pointId, status);
    }

    /// Removes all faults; running transfers keep theirs.
    void ClearFaults() { m_faults.Clear(); }

    /// Lets the transfers go on that hang because of the fault `stuck`.
    void ReleaseTransfers() { m_abort.ReleaseCalls(); }

    /// Number of transfers that hang now.
    unsigned int HangingTransfers() const { return m_abort.HangingCalls(); }

    /// Aborts the device: ends running transfers and delays within 10 ms, refuses later transfers and drops
    /// late answers. A second call has no effect.
    void Abort() { m_abort.Trip(); }

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

    /// Ends the running file calls within 10 ms: they return false, and the bytes already delivered remain.
    /// Later calls, points and answers are not affected. Does nothing for another device's identifier.
    void AbortTransfer(unsigned short device) override;

protected:
    bool DoGetDevFile(unsigned short device, const std::string& option, const std::string& fileName) override;
    bool DoPutDevFile(unsigned short device, const std::string& directory, const std::string& fileName,
                      const std::string& xferFileName) override;

private:
    friend class SimDeviceBuilder;

    explicit SimDevice(const SimDeviceConfig& config);

    template <typename Result, typename Work>
    static Result Guarded(Result failure, Work work);
    int Admit(SimAccess access, unsigned short device, unsigned short pointId, bool plainAddress);
    void HandleRequest(const std::string& text);
    void Answer(SimOperation operation, const std::string& text);
    void GiveAnswer(const SimFault& fault, const std::string& word, std::uint64_t size);
    bool AdmitTransfer(unsigned short device, const SimFault& fault, const SimAbort::Call& call) const;
    bool Deliver(const std::string& fileName, const SimFault& fault, const SimAbort::Call& call);
    bool Accept(const std::string& path, const std::string& xferFileName, const SimFault& fault,
                const SimAbort::Call& call);
    unsigned short IndexOr(unsigned short mmIdx) const;

    const SimDeviceConfig m_config;

    // Each of these has its own lock.
    SimAbort m_abort;
    SimFaults m_faults;
    SimChangeQueue m_changes;
    SimPoints m_points;
    SimFiles m_files;
    SimLateAnswers m_late;
};

#endif
