#include "engine/KyTferClientMembers.h"

#include <mutex>

namespace ky_engine {

namespace {

// Guards the directories, which all engines share.
std::mutex g_directoriesMutex;

}  // namespace

std::string KyTferClientMembers::s_sorLandingDir;
std::string KyTferClientMembers::s_downloadDir;
std::atomic<int> KyTferClientMembers::m_genPutFileName{1};

void KyTferClientMembers::SetDirectories(const std::string& landing, const std::string& download) {
    const std::lock_guard<std::mutex> lock(g_directoriesMutex);
    s_sorLandingDir = landing;
    s_downloadDir = download;
}

std::string KyTferClientMembers::LandingDirectory() {
    const std::lock_guard<std::mutex> lock(g_directoriesMutex);
    return s_sorLandingDir;
}

std::string KyTferClientMembers::DownloadDirectory() {
    const std::lock_guard<std::mutex> lock(g_directoriesMutex);
    return s_downloadDir;
}

}  // namespace ky_engine
