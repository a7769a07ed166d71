#ifndef PLATFORMCHECK_SETUP_H
#define PLATFORMCHECK_SETUP_H

#include "platformcheck/PlatformCheck.h"

/// What the program platform-check needs of the platform it is linked with: the one source file that a card
/// replaces by its own.
///
/// Prepares the process for FIFO sessions, if the platform wants that, and says how the device is reached.
/// @return the options, for the command line to change
ky_platform_check::Options SetUpPlatformCheck();

#endif
