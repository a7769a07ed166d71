#ifndef HOST_KYHOSTNET_H
#define HOST_KYHOSTNET_H

#include <string>

namespace ky_host {

/// Sets the text that tal_netutils::KyNetUtils::GetMAC() returns from now on in this process, for tests and
/// simulated devices.
///
/// @param text  kept as it is, whatever its form; empty to return to the address of the machine
///
/// May be called from any thread, also while others call GetMAC(). Throws std::bad_alloc when memory has run
/// out, and has changed nothing then.
void SetMAC(const std::string& text);

}  // namespace ky_host

#endif
