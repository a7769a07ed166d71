#ifndef TFERCTL_TURN_H
#define TFERCTL_TURN_H

#include "platform/KyFd.h"

namespace ky_tferctl {

/// The turn of one tferctl among several: who has it makes its transfers, the others wait. The service has
/// one record for all transfers, so that the end of one is lost once the next has begun.
///
/// It is a lock on the staging directory, which leaves nothing behind and goes with the process. Where this
/// process cannot open that directory, it takes its turn without.
class Turn {
public:
    /// Takes the turn if nobody else has it; keeps it until the object goes. Does not wait.
    /// @return whether it is ours
    bool Take();

private:
    KyFd m_directory;
    bool m_taken = false;
};

}  // namespace ky_tferctl

#endif
