#ifndef ENGINE_KYMODULESEARCH_H
#define ENGINE_KYMODULESEARCH_H

#include <atomic>

#include "engine/KyDeviceAccess.h"

namespace ky_engine {

/// Implements KyTferClient::AcquireMaiMmIdx.
///
/// @param mmIdx  receives the index
/// @param stop   true ends the search
bool FindModule(const KyDeviceAccess& device, std::atomic<unsigned short>& mmIdx,
                const std::atomic<bool>& stop);

}  // namespace ky_engine

#endif
