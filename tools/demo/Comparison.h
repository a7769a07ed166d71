#ifndef DEMO_COMPARISON_H
#define DEMO_COMPARISON_H

#include <string>

namespace ky_demo {

/// What has come of comparing two files.
struct Comparison {
    bool equal = false;
    std::string text;  ///< "equal", or how they differ; for a person
};

/// Compares two files byte for byte.
Comparison Compare(const std::string& sent, const std::string& arrived);

}  // namespace ky_demo

#endif
