#ifndef SANDBOX_SYSTEMCALLS_H
#define SANDBOX_SYSTEMCALLS_H

#include <set>
#include <string>

#include "Unit.h"

namespace sandbox {

/// The system calls that the unit's SystemCallFilter= lines allow; asks systemd-analyze what the named sets
/// hold. Throws std::runtime_error.
std::set<std::string> AllowedSystemCalls(const Unit& unit);

/// Lets the process make these calls only, any other kills it, and denies what the unit's Restrict...=,
/// LockPersonality= and MemoryDenyWriteExecute= do. Throws std::runtime_error.
void FilterSystemCalls(const Unit& unit, const std::set<std::string>& allowed);

}  // namespace sandbox

#endif
