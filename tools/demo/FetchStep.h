#ifndef DEMO_FETCHSTEP_H
#define DEMO_FETCHSTEP_H

#include <vector>

#include "demo/CardAndDevice.h"
#include "demo/Console.h"
#include "demo/Workspace.h"
#include "directory/KyTferDirEntry.h"

namespace ky_demo {

/// Fetches the files of a listing, each with a progress bar, and compares them with the device's. Goes at a
/// line rate that makes the largest file take two and a half seconds. Ends with the first file that does not
/// arrive or differs.
///
/// @param entries  in the order of `files`, which are the same
/// @return true if all arrived and are equal
bool FetchFiles(Console& console, CardAndDevice& both, const std::vector<KyTferDirEntry>& entries,
                const Workspace& workspace);

}  // namespace ky_demo

#endif
