#ifndef ENGINE_KYNEGOTIATION_H
#define ENGINE_KYNEGOTIATION_H

#include "engine/KyDeviceAccess.h"
#include "engine/KyTferClientMembers.h"

namespace ky_engine {

/// Agrees with the device on a transport: Sorrel 485, or USB if the device does not answer the first point of
/// that. A step that fails is logged, and the sequence goes on. Blocks for its point accesses.
///
/// @param members       get what the device supports
/// @param xferFileSize  written to the device's file size point
/// @return the status of that write over Sorrel 485; over USB that of the read that failed, or 0
int Negotiate(KyDeviceAccess& device, KyTferClientMembers& members, unsigned int xferFileSize);

/// As KyTferClient::SetDmpSupported.
void SetDmpSupported(bool supported);

}  // namespace ky_engine

#endif
