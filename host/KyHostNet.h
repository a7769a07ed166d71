#ifndef HOST_KYHOSTNET_H
#define HOST_KYHOSTNET_H

#include <string>

namespace ky_host {

/// Sets the text that tal_netutils::KyNetUtils::GetMAC() returns in this process, for tests and simulated
/// devices.
///
/// @param text  returned unchanged; empty to return the machine's address again
///
/// Any thread may call it, also while others call GetMAC(). Throws std::bad_alloc if memory has run out; the
/// text is unchanged then.
void SetMAC(const std::string& text);

}  // namespace ky_host

#endif
