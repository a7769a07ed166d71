#include "demo/NegotiationStep.h"

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "demo/Text.h"
#include "platform/KyNetUtils.h"

namespace ky_demo {
namespace {

constexpr char s_searching[] = "Searching for the card's place takes eight seconds";

int BindVisibly(Console& console, CardAndDevice& both) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    const auto elapsed = [start] {
        return Seconds(std::chrono::duration<double>(Clock::now() - start).count());
    };
    if (!console.IsTerminal()) console.Line(s_searching);
    std::future<int> status = std::async(std::launch::async, [&both] { return both.Bind(); });
    while (status.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready)
        console.Redraw(s_searching + (": " + elapsed()));
    console.Heading("Negotiation; the card has found its place by its MAC address in " + elapsed());
    return status.get();
}

// Where the card has looked last: the engine uses the index that it has found for all that follows.
unsigned int ModuleIndex(const SimDevice& device) {
    const std::vector<SimCall> calls = device.Calls();
    return calls.empty() ? 0 : calls.back().mmIdx;
}

std::string Abilities(const SimDevice& device, unsigned short minVersion, unsigned short maxVersion,
                      unsigned short maxFileSize) {
    return "versions " + std::to_string(device.GetUint32(minVersion)) + " to " +
           std::to_string(device.GetUint32(maxVersion)) + ", files up to " +
           Bytes(device.GetUint32(maxFileSize));
}

}  // namespace

bool Negotiate(Console& console, CardAndDevice& both) {
    const int status = BindVisibly(console, both);
    const SimDevice& device = both.Device();
    console.Line("  Card       " +
                 Abilities(device, sim_point::CLIENT_MIN_VERSION, sim_point::CLIENT_MAX_VERSION,
                           sim_point::CLIENT_MAX_FILE_SIZE) +
                 "; module " + std::to_string(ModuleIndex(device)) + ", " +
                 tal_netutils::KyNetUtils::GetMAC());
    console.Line("  Device     " + Abilities(device, sim_point::SERVER_MIN_VERSION,
                                             sim_point::SERVER_MAX_VERSION, sim_point::SERVER_MAX_FILE_SIZE));
    const bool agreed = status == 0 && both.Engine().IsTferProtocolSupported();
    console.Line(agreed ? "  Transport  Sorrel 485"
                        : "  Transport  FAILED: status " + std::to_string(status));
    return agreed;
}

}  // namespace ky_demo
