#include "Unit.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace sandbox {

Unit::Unit(const std::string& path) {
    std::ifstream file(path);
    if (!file) throw std::runtime_error("cannot read " + path);
    const std::string notUnderstood = path + ": not understood: ";
    bool inService = false;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#' || line[0] == ';') continue;
        if (line[0] == '[') inService = line == "[Service]";
        if (!inService || line[0] == '[') continue;
        const size_t equals = line.find('=');
        if (equals == std::string::npos || line.back() == '\\')
            throw std::runtime_error(notUnderstood + line);
        std::istringstream values(line.substr(equals + 1));
        Words words;
        for (std::string word; values >> word;)
            words.push_back(word);
        m_lines[line.substr(0, equals)].push_back(words);
    }
    if (m_lines.empty()) throw std::runtime_error(path + ": no [Service] section");
}

const std::vector<Unit::Words>& Unit::Lines(const std::string& key) const {
    static const std::vector<Words> s_none;
    const auto found = m_lines.find(key);
    return found == m_lines.end() ? s_none : found->second;
}

Unit::Words Unit::All(const std::string& key) const {
    Words all;
    for (const Words& words : Lines(key))
        all.insert(all.end(), words.begin(), words.end());
    return all;
}

std::string Unit::Value(const std::string& key) const {
    const Words words = All(key);
    return words.empty() ? "" : words.back();
}

std::string Unit::Unknown(const Words& known) const {
    for (const auto& line : m_lines) {
        if (std::find(known.begin(), known.end(), line.first) == known.end()) return line.first;
    }
    return "";
}

}  // namespace sandbox
