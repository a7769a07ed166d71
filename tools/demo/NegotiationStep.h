#ifndef DEMO_NEGOTIATIONSTEP_H
#define DEMO_NEGOTIATIONSTEP_H

#include "demo/CardAndDevice.h"
#include "demo/Console.h"

namespace ky_demo {

/// Binds the engine to the device and tells what they have agreed on.
///
/// @return true if files can be transferred now
bool Negotiate(Console& console, CardAndDevice& both);

}  // namespace ky_demo

#endif
