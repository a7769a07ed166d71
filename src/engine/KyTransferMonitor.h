#ifndef ENGINE_KYTRANSFERMONITOR_H
#define ENGINE_KYTRANSFERMONITOR_H

#include <string>

#include "engine/KyTferClient.h"

/// What one poll has found. Polls run with the engine's mutex held and only collect; what they found is
/// logged after it has been released.
struct KyTferClient::PollResult {
    enum End {
        GO_ON,      ///< the transaction is under way
        LEAVE,      ///< nothing is left to do for the monitor
        TIMED_OUT,  ///< the time limit has passed
    };

    End end = GO_ON;
    const char* farewell = nullptr;  ///< logged before the monitor leaves; null for nothing
    std::string path;                ///< where the file arrives
    bool sighted = false;            ///< it is there
    unsigned int bytesRequested = 0;
    unsigned int bytesTransfered = 0;

    /// The result of a poll that ends the monitor.
    PollResult& Leave(const char* farewellText) {
        end = LEAVE;
        farewell = farewellText;
        return *this;
    }
};

/// What distinguishes the monitors from each other. The operations are called with the engine's mutex held.
struct KyTferClient::MonitorFlow {
    const char* function;    ///< named in log lines
    long long limitSeconds;  ///< how long a transaction may take
    bool logsProgress;       ///< each new size of the arriving file is logged

    /// Looks at the arriving file and writes what it finds into the record.
    PollResult (KyTferClient::*poll)(unsigned long long transaction);

    /// What is recorded at once when a poll finds the limit passed; null for nothing.
    void (KyTferClient::*timeOut)();

    /// What is recorded when the monitor ends otherwise than by a poll. The mutex has been released since the
    /// step above.
    void (KyTferClient::*finish)(unsigned long long transaction, bool afterTimeOut);

    const char* farewell;  ///< logged after finish
};

#endif
