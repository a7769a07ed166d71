#include "demo/OutsidePath.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <utility>
#include <vector>

namespace ky_demo {
namespace {

namespace fs = std::filesystem;

/// A directory `root` of the file system on `device`, shown at `point`.
struct Mount {
    std::string device;
    fs::path root;
    fs::path point;
};

std::vector<Mount> Mounts() {
    std::vector<Mount> mounts;
    std::ifstream file("/proc/self/mountinfo");
    for (std::string line; std::getline(file, line);) {
        std::istringstream fields(line);
        std::string id;
        std::string parent;
        std::string device;
        std::string root;
        std::string point;
        if (fields >> id >> parent >> device >> root >> point) mounts.push_back({device, root, point});
    }
    return mounts;
}

bool LiesIn(const fs::path& path, const fs::path& directory) {
    return std::mismatch(directory.begin(), directory.end(), path.begin(), path.end()).first ==
           directory.end();
}

// Another place at which the directory of a mount can be seen.
std::optional<fs::path> OtherPlace(const Mount& mount, const std::vector<Mount>& mounts) {
    for (const Mount& other : mounts) {
        if (other.device != mount.device || other.point == mount.point || !LiesIn(mount.root, other.root))
            continue;
        const fs::path place = other.point / mount.root.lexically_relative(other.root);
        std::error_code error;
        if (fs::equivalent(place, mount.point, error)) return place.lexically_normal();
    }
    return std::nullopt;
}

}  // namespace

std::string OutsidePath(const std::string& path) {
    const std::vector<Mount> mounts = Mounts();
    // The mount that shows the file is the deepest one, and of several at one place the last one.
    const Mount* deepest = nullptr;
    for (const Mount& mount : mounts)
        if (LiesIn(path, mount.point) && (deepest == nullptr || LiesIn(mount.point, deepest->point)))
            deepest = &mount;
    if (deepest == nullptr) return path;
    const auto place = OtherPlace(*deepest, mounts);
    return place ? (*place / fs::path(path).lexically_relative(deepest->point)).string() : path;
}

}  // namespace ky_demo
