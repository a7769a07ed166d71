#ifndef ENGINE_KYNEGOTIATION_H
#define ENGINE_KYNEGOTIATION_H

#include "engine/KyDeviceAccess.h"
#include "engine/KyTferClientMembers.h"

namespace ky_engine {

/// Negotiates the transport: Sorrel 485, or USB if the device's first Sorrel 485 point cannot be read. Logs failed
/// steps. Over Sorrel 485 a failed step does not end the negotiation. Blocks for its point accesses.
///
/// @param members       receives the device's versions and file size limit
/// @param xferFileSize  written to the device's file size point
/// @return over Sorrel 485 the status of that write; over USB that of the failed read, or 0
int Negotiate(KyDeviceAccess& device, KyTferClientMembers& members, unsigned int xferFileSize);

/// Implements KyTferClient::SetDmpSupported.
void SetDmpSupported(bool supported);

}  // namespace ky_engine

#endif
