#ifndef SUPPORT_TEMPDIR_H
#define SUPPORT_TEMPDIR_H

#include <string>

/// A fresh directory, removed with all that is in it when the object goes. It lies in the sandbox's own
/// /var/tmp, which is another file system than /var/local.
class TempDir {
public:
    TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir();

    const std::string& Path() const { return m_path; }  ///< without a final "/"
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

/// The file's bytes; fails the test and gives "" when it cannot be read.
std::string ReadFile(const std::string& path);

/// Writes the file anew; fails the test when it cannot.
void WriteFile(const std::string& path, const std::string& bytes);

int OpenDescriptors();  ///< open descriptors of this process

#endif
