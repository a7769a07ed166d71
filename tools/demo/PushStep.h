#ifndef DEMO_PUSHSTEP_H
#define DEMO_PUSHSTEP_H

#include "demo/CardAndDevice.h"
#include "demo/Console.h"
#include "demo/Workspace.h"

namespace ky_demo {

/// Pushes a copy of a file to the device and compares what has arrived there.
///
/// @return true if it arrived and is equal
bool PushFile(Console& console, CardAndDevice& both, const DeviceFile& file);

}  // namespace ky_demo

#endif
