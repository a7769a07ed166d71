#ifndef ENDURANCE_GROWTH_H
#define ENDURANCE_GROWTH_H

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

/// What a process holds; memory in KiB.
struct Figures {
    long threads = 0, descriptors = 0, addressSpace = 0, privateMemory = 0;
};

/// @param directory  of a process of this user, in /proc
inline Figures FiguresOf(const std::string& directory) {
    namespace fs = std::filesystem;
    Figures figures;
    std::ifstream status(directory + "/status"), memory(directory + "/smaps_rollup");
    for (std::string word; status >> word;) {
        if (word == "Threads:") status >> figures.threads;
        if (word == "VmSize:") status >> figures.addressSpace;
    }
    long part = 0;
    for (std::string word; memory >> word;) {
        if (word.rfind("Private_", 0) == 0 && memory >> part) figures.privateMemory += part;
    }
    figures.descriptors = std::distance(fs::directory_iterator(directory + "/fd"), {});
    EXPECT_TRUE(figures.threads > 0 && figures.addressSpace > 0 && figures.privateMemory > 0);
    return figures;
}

/// The bounds. A thread that has ended but was never joined keeps its stack, 8 MiB and a page that guards it: less
/// than a stack is noise of malloc, which has one arena here, and no thread. What leaks in smaller pieces shows in
/// the private memory, of which malloc's free lists and a stack that once was deeper account for some 100 KiB; the
/// bound comes to ten bytes for each of 100,000.
inline void ExpectNoGrowth(const Figures& before, const Figures& after) {
    for (const Figures& figures : {before, after})
        std::cout << figures.threads << " threads, " << figures.descriptors << " descriptors, "
                  << figures.addressSpace << " KiB of addresses, " << figures.privateMemory
                  << " KiB private\n";
    EXPECT_LE(after.threads, before.threads);
    EXPECT_EQ(after.descriptors, before.descriptors);
    if (kSanitized) return;  // its shadow grows with what it has seen
    EXPECT_LT(after.addressSpace - before.addressSpace, 8192);
    EXPECT_LT(after.privateMemory - before.privateMemory, 1000);
}

#endif
