#include "demo/Workspace.h"

#include <algorithm>
#include <filesystem>

#include "demo/Samples.h"

namespace ky_demo {
namespace {

namespace fs = std::filesystem;

constexpr char s_demoDirectory[] = "/var/tmp/ky-demo";
constexpr char s_outboxDirectory[] = "/var/local/ky-demo";
constexpr char s_cardDirectory[] = "/var/local/tal";

// The time stamp goes along: the device's listing shows it.
void Copy(const fs::path& from, const fs::path& directory) {
    const fs::path to = directory / from.filename();
    fs::copy_file(from, to);
    fs::last_write_time(to, fs::last_write_time(from));
}

}  // namespace

Workspace::Workspace(const std::vector<std::string>& files) {
    for (const char* directory : {s_demoDirectory, s_outboxDirectory, s_cardDirectory})
        fs::remove_all(directory);
    fs::create_directories(DeviceDirectory());
    fs::create_directories(s_outboxDirectory);
    for (const std::string& file : files)
        Copy(file, DeviceDirectory());
    if (files.empty()) WriteSamples(DeviceDirectory());
    for (const fs::directory_entry& entry : fs::directory_iterator(DeviceDirectory()))
        m_files.push_back({entry.path().filename(), entry.file_size()});
    std::sort(m_files.begin(), m_files.end(),
              [](const DeviceFile& a, const DeviceFile& b) { return a.name < b.name; });
}

const DeviceFile& Workspace::Largest() const {
    return *std::max_element(m_files.begin(), m_files.end(),
                             [](const DeviceFile& a, const DeviceFile& b) { return a.size < b.size; });
}

std::string Workspace::DeviceDirectory() {
    return std::string(s_demoDirectory) + "/device";
}

std::string Workspace::DevicePath(const std::string& name) {
    return DeviceDirectory() + "/" + name;
}

std::string Workspace::OutboxDirectory() {
    return s_outboxDirectory;
}

void Workspace::PutIntoOutbox(const std::string& name) {
    Copy(DevicePath(name), s_outboxDirectory);
}

std::string Workspace::LogPath() {
    return std::string(s_demoDirectory) + "/engine.log";
}

}  // namespace ky_demo
