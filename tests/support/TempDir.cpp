#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace fs = std::filesystem;

TempDir::TempDir() : m_path("/var/tmp/kytest-XXXXXX") {
    if (mkdtemp(m_path.data()) == nullptr) ADD_FAILURE() << "no temporary directory in /var/tmp";
}

TempDir::~TempDir() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;
    if (!file.is_open() || (file.peek() != EOF && !(bytes << file.rdbuf()))) {
        ADD_FAILURE() << "cannot read " << path;
    }
    return bytes.str();
}

void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (!(file << bytes).flush()) ADD_FAILURE() << "cannot write " << path;
}

int OpenDescriptors() {
    const auto count = std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    return static_cast<int>(count) - 1;  // the listing itself holds one
}
