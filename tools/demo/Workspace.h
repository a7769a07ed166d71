#ifndef DEMO_WORKSPACE_H
#define DEMO_WORKSPACE_H

#include <cstdint>
#include <string>
#include <vector>

namespace ky_demo {

/// One of the device's files.
struct DeviceFile {
    std::string name;
    std::uint64_t size = 0;  ///< bytes
};

/// The demo's directories, made anew: what an earlier run has left in them, and in the card's own
/// directories, is removed first.
class Workspace {
public:
    /// @param files  become the device's files as copies; samples do if there are none
    ///
    /// Throws std::exception if a file cannot be removed, copied or written.
    explicit Workspace(const std::vector<std::string>& files);

    /// The device's files in the order of their names, which is the order of its listing.
    const std::vector<DeviceFile>& Files() const { return m_files; }

    /// The largest of the device's files.
    const DeviceFile& Largest() const;

    /// The device's directory, and the path of a file in it.
    static std::string DeviceDirectory();
    static std::string DevicePath(const std::string& name);

    /// The card's directory for files to push; it lies on the file system of the card's staging directory.
    static std::string OutboxDirectory();

    /// Puts a copy of a device's file into the outbox, under the same name. Throws std::exception on failure.
    static void PutIntoOutbox(const std::string& name);

    static std::string LogPath();

private:
    std::vector<DeviceFile> m_files;
};

}  // namespace ky_demo

#endif
