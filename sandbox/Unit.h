#ifndef SANDBOX_UNIT_H
#define SANDBOX_UNIT_H

#include <map>
#include <string>
#include <vector>

namespace sandbox {

/// The [Service] section of a systemd unit, as far as harden-run has a use for it.
class Unit {
public:
    using Words = std::vector<std::string>;

    /// Throws std::runtime_error if the file cannot be read, or holds what this class does not understand.
    explicit Unit(const std::string& path);

    /// The words of each line that sets `key`, in the order of the file.
    const std::vector<Words>& Lines(const std::string& key) const;

    /// The words of all these lines.
    Words All(const std::string& key) const;

    /// The value of a key that has one, or an empty string.
    std::string Value(const std::string& key) const;

    bool Is(const std::string& key, const std::string& value = "yes") const { return Value(key) == value; }

    /// The first key that is not among `known`, or an empty string.
    std::string Unknown(const Words& known) const;

private:
    std::map<std::string, std::vector<Words>> m_lines;
};

}  // namespace sandbox

#endif
