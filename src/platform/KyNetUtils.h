#ifndef PLATFORM_KYNETUTILS_H
#define PLATFORM_KYNETUTILS_H

#include <string>

namespace tal_netutils {

/// Network helpers of the platform.
class KyNetUtils {
public:
    /// The card's MAC address, as text in the form that the managed device uses in the points 6459
    /// (MonAgentInfo), one for each module: the engine finds the card's module by comparing the texts byte for
    /// byte.
    ///
    /// Any thread may call it. Always returns the same text: a fixed text on a card without a network
    /// interface. Exception: the empty text if memory has run out; the engine then does not search. Does not
    /// throw.
    static std::string GetMAC();
};

}  // namespace tal_netutils

#endif
