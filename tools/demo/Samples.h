#ifndef DEMO_SAMPLES_H
#define DEMO_SAMPLES_H

#include <string>

namespace ky_demo {

/// Makes the sample files, always the same ones: a configuration, an event log of 20 KiB and a recording of
/// 300 KiB. Throws std::exception if one cannot be written.
///
/// @param directory  an existing one
void WriteSamples(const std::string& directory);

}  // namespace ky_demo

#endif
