#ifndef PLATFORM_KYNETUTILS_H
#define PLATFORM_KYNETUTILS_H

#include <string>

namespace tal_netutils {

/// Network helpers of the platform.
class KyNetUtils {
public:
    /// The card's MAC address, as text in the very form in which the managed device stores it in its
    /// MonAgentInfo points: the card finds itself there by comparing byte for byte.
    ///
    /// May be called from any thread. It never fails: a card without a network interface gets a fixed text.
    static std::string GetMAC();
};

}  // namespace tal_netutils

#endif
