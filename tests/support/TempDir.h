#ifndef SUPPORT_TEMPDIR_H
#define SUPPORT_TEMPDIR_H

#include <string>

/// A new directory. The destructor removes it with its contents. It is in /var/tmp of the sandbox, which is another file
/// system than /var/local.
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

/// The file's bytes. If the file cannot be read, the test fails and the result is empty.
std::string ReadFile(const std::string& path);

/// Replaces the contents of the file. The test fails on an error.
void WriteFile(const std::string& path, const std::string& bytes);

int OpenDescriptors();  ///< open descriptors of this process

#endif
