#include "demo/Comparison.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <memory>
#include <utility>

namespace ky_demo {
namespace {

using Block = std::array<char, 65536>;

std::size_t Read(std::ifstream& file, Block& block) {
    file.read(block.data(), static_cast<std::streamsize>(block.size()));
    return static_cast<std::size_t>(file.gcount());
}

}  // namespace

Comparison Compare(const std::string& sent, const std::string& arrived) {
    std::ifstream first(sent, std::ios::binary);
    std::ifstream second(arrived, std::ios::binary);
    if (!first || !second) return {false, "NOT THERE"};
    const auto expected = std::make_unique<Block>();
    const auto found = std::make_unique<Block>();
    for (std::size_t offset = 0;; offset += expected->size()) {
        const std::size_t expectedCount = Read(first, *expected);
        const std::size_t foundCount = Read(second, *found);
        if (first.bad() || second.bad()) return {false, "NOT READABLE"};
        const char* const begin = expected->data();
        const char* const end = begin + std::min(expectedCount, foundCount);
        const char* const difference = std::mismatch(begin, end, std::as_const(*found).data()).first;
        if (difference != end || expectedCount != foundCount) {
            const std::size_t at = offset + static_cast<std::size_t>(difference - begin);
            return {false, "DIFFERENT from byte " + std::to_string(at) + " on"};
        }
        if (expectedCount < expected->size()) return {true, "equal"};
    }
}

}  // namespace ky_demo
