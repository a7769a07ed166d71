#ifndef ENGINE_KYMODULESEARCH_H
#define ENGINE_KYMODULESEARCH_H

#include <atomic>

#include "engine/KyDeviceAccess.h"

namespace ky_engine {

/// As KyTferClient::AcquireMaiMmIdx.
///
/// @param mmIdx  gets the index that was found
/// @param stop   ends the search
bool FindModule(const KyDeviceAccess& device, std::atomic<unsigned short>& mmIdx,
                const std::atomic<bool>& stop);

}  // namespace ky_engine

#endif
