#ifndef DEMO_DIRECTORYSTEP_H
#define DEMO_DIRECTORYSTEP_H

#include <vector>

#include "demo/CardAndDevice.h"
#include "demo/Console.h"
#include "directory/KyTferDirEntry.h"

namespace ky_demo {

/// Brings the device's listing and shows it, as a table, and a page of it as the JSON document.
///
/// @param entries  receives the listing's entries
/// @return true if the listing arrived
bool ListDirectory(Console& console, CardAndDevice& both, std::vector<KyTferDirEntry>& entries);

}  // namespace ky_demo

#endif
