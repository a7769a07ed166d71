#ifndef PLATFORM_KYNETUTILS_H
#define PLATFORM_KYNETUTILS_H

#include <string>

namespace tal_netutils {

/// Network helpers of the platform.
class KyNetUtils {
public:
    /// The card's MAC address, as text in the form that the managed device uses in its MonAgentInfo points:
    /// the card finds its module by comparing the texts byte for byte.
    ///
    /// Any thread may call it. Returns a fixed text on a card without a network interface; the empty text,
    /// which matches no module, if memory has run out.
    static std::string GetMAC();
};

}  // namespace tal_netutils

#endif
