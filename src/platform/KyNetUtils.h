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
    /// May be called from any thread. A card without a network interface gets a fixed text; the empty text,
    /// with which no module is found, means that memory has run out.
    static std::string GetMAC();
};

}  // namespace tal_netutils

#endif
