#include "platform/KyNetUtils.h"

#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <net/if_arp.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>

#include "host/KyHostNet.h"

namespace {

constexpr size_t kMacBytes = 6;
constexpr char kNoInterfaceMac[] = "02:00:00:00:00:01";  // locally administered

/// The text of SetMAC(); empty for none.
struct SetText {
    std::mutex mutex;
    std::string text;  // guarded by mutex

    static SetText& Get() {
        static SetText s_setText;
        return s_setText;
    }
};

/// The Ethernet address of an interface; null for other interfaces, the loopback and an address of zeros.
const sockaddr_ll* LinkAddress(const ifaddrs& entry) {
    if (entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != AF_PACKET) return nullptr;
    if ((entry.ifa_flags & IFF_LOOPBACK) != 0) return nullptr;
    const void* const address = entry.ifa_addr;
    const auto* const link = static_cast<const sockaddr_ll*>(address);
    if (link->sll_hatype != ARPHRD_ETHER || link->sll_halen != kMacBytes) return nullptr;
    const auto* const end = link->sll_addr + kMacBytes;
    return std::all_of(link->sll_addr, end, [](unsigned char byte) { return byte == 0; }) ? nullptr : link;
}

std::string ToText(const unsigned char* mac) {
    char text[sizeof kNoInterfaceMac];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                  mac[5]);
    return text;
}

std::string MachineMAC() {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return kNoInterfaceMac;
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(list, freeifaddrs);
    const sockaddr_ll* first = nullptr;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        const sockaddr_ll* const link = LinkAddress(*entry);
        if (link != nullptr && (first == nullptr || link->sll_ifindex < first->sll_ifindex)) first = link;
    }
    return first == nullptr ? kNoInterfaceMac : ToText(first->sll_addr);
}

}  // namespace

std::string tal_netutils::KyNetUtils::GetMAC() {
    try {
        SetText& set = SetText::Get();
        {
            const std::lock_guard<std::mutex> lock(set.mutex);
            if (!set.text.empty()) return set.text;
        }
        return MachineMAC();
    } catch (const std::exception&) {
        return {};  // out of memory: no card has this address
    }
}

void ky_host::SetMAC(const std::string& text) {
    std::string copy = text;
    SetText& set = SetText::Get();
    const std::lock_guard<std::mutex> lock(set.mutex);
    set.text.swap(copy);
}
