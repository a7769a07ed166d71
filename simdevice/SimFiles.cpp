#include "simdevice/SimFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

namespace {

// Values of the request point with a special meaning.
bool IsRequestWord(const std::string& name) {
    for (const char* word : {"NONE", "DIRREQ", "READY", "SUCCESS", "ERROR"})
        if (name == word) return true;
    return false;
}

std::string AsToken(std::string text) {
    constexpr const char* kWhiteSpace = " \t\n\v\f\r";
    for (std::size_t at = text.find_first_of(kWhiteSpace); at != std::string::npos;
         at = text.find_first_of(kWhiteSpace, at))
        text[at] = '_';
    return text;
}

// The extension of the name in upper case, or FILE.
std::string TypeOf(const std::string& name) {
    const std::size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot + 1 == name.size()) return "FILE";
    std::string type = AsToken(name.substr(dot + 1));
    for (char& letter : type)
        if (letter >= 'a' && letter <= 'z') letter = static_cast<char>(letter - 'a' + 'A');
    return type;
}

std::uint64_t Nanoseconds(const timespec& time) {
    if (time.tv_sec < 0) return 0;
    return static_cast<std::uint64_t>(time.tv_sec) * 1000000000U + static_cast<std::uint64_t>(time.tv_nsec);
}

struct DirCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};

std::uint64_t BytesToDeliver(std::uint64_t size, long long delta) {
    if (delta >= 0) return size + static_cast<std::uint64_t>(delta);
    const std::uint64_t missing = 0U - static_cast<std::uint64_t>(delta);
    return size > missing ? size - missing : 0;
}

bool WriteAll(int target, const char* bytes, std::size_t count) {
    while (count > 0) {
        const ssize_t written = write(target, bytes, count);
        if (written <= 0) return false;
        bytes += written;
        count -= static_cast<std::size_t>(written);
    }
    return true;
}

void MakeNoise(char* bytes, std::size_t count, std::uint64_t offset) {
    for (std::size_t i = 0; i < count; ++i)
        bytes[i] = static_cast<char>(((offset + i) * 2654435761U >> 13) & 0xFF);
}

// A copy of a source over the line, which goes on from where it was.
class Copying {
public:
    Copying(const SimSource& source, int target, std::uint64_t lineRate, const SimFault& fault,
            const SimAbort::Call& call)
        : m_source(source), m_target(target), m_rate(lineRate), m_fault(fault), m_call(call) {}

    bool UpTo(std::uint64_t end) {
        while (m_offset < end) {
            std::size_t count = 0;
            if (!MoveChunk(end, count)) return false;
            m_offset += count;
            if (!Pace(count)) return false;
        }
        return true;
    }

    bool SleepOwed() { return m_call.Sleep(std::exchange(m_owedMicroseconds, 0)); }

private:
    // A chunk is at most what the line carries in 10 ms. Zeros follow the end of the source.
    bool MoveChunk(std::uint64_t end, std::size_t& count) const {
        std::array<char, 65536> chunk;
        const std::uint64_t most =
            m_rate == 0 ? chunk.size() : std::clamp<std::uint64_t>(m_rate / 100, 1, chunk.size());
        const bool inside = m_offset < m_source.size;
        const std::uint64_t left = (inside ? std::min(m_source.size, end) : end) - m_offset;
        count = static_cast<std::size_t>(std::min(most, left));
        if (inside) {
            const ssize_t read = m_source.ReadAt(m_offset, chunk.data(), count);
            if (read <= 0) return false;  // 0: the file has become shorter
            count = static_cast<std::size_t>(read);
        } else {
            std::fill_n(chunk.data(), count, '\0');
        }
        if (m_fault.garbage) MakeNoise(chunk.data(), count, m_offset);
        return WriteAll(m_target, chunk.data(), count);
    }

    // Sleeps for the time that the bytes take on the line. Sleeps shorter than 10 ms are put off, because each
    // sleep takes longer than asked for.
    bool Pace(std::uint64_t bytes) {
        if (m_rate == 0) return !m_call.Ended();
        m_owedMicroseconds += bytes * 1000000 / m_rate;
        return m_owedMicroseconds < 10000 ? !m_call.Ended() : SleepOwed();
    }

    const SimSource& m_source;
    const int m_target;
    const std::uint64_t m_rate;
    const SimFault& m_fault;
    const SimAbort::Call& m_call;
    std::uint64_t m_offset = 0;
    std::uint64_t m_owedMicroseconds = 0;
};

}  // namespace

bool SimSource::OpenFile(const std::string& path) {
    // Opening a FIFO without O_NONBLOCK would hang.
    file = KyFd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat info = {};
    if (!file || fstat(file.Get(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
    size = static_cast<std::uint64_t>(info.st_size);
    return true;
}

ssize_t SimSource::ReadAt(std::uint64_t offset, char* bytes, std::size_t count) const {
    if (text == nullptr) return pread(file.Get(), bytes, count, static_cast<off_t>(offset));
    if (offset >= text->size()) return 0;
    return static_cast<ssize_t>(text->copy(bytes, count, static_cast<std::size_t>(offset)));
}

bool SimSource::CopyTo(int target, std::uint64_t lineRate, const SimFault& fault,
                       const SimAbort::Call& call) const {
    const std::uint64_t total = BytesToDeliver(size, fault.sizeDelta);
    Copying copying(*this, target, lineRate, fault, call);
    if (fault.stuck) {
        if (!copying.UpTo(std::min(total, fault.stuckAfterBytes))) return false;
        call.Hang();
    }
    return copying.UpTo(total) && copying.SleepOwed();
}

bool SimFiles::IsFileName(const std::string& name) {
    return !name.empty() && name[0] != '.' && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

bool SimFiles::Open(const std::string& name, SimSource& source) const {
    if (!IsFileName(name)) return false;
    std::string path = m_directory + name;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (name == m_listingName) {
            source.text = m_listing;
            source.size = m_listing->size();
            return true;
        }
        const auto found = m_transferNames.find(name);
        if (found != m_transferNames.end()) path = m_directory + found->second;
    }
    return source.OpenFile(path);
}

bool SimFiles::IsListing(const std::string& name) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_listing != nullptr && name == m_listingName;
}

std::string SimFiles::MakeListing() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const std::vector<Entry> entries = Scan();
    m_transferNames.clear();
    std::string text = "1," + std::to_string(entries.size()) + "\n";
    for (const Entry& entry : entries)
        AppendEntry(entries, entry, text);
    m_listing = std::make_shared<const std::string>(std::move(text));
    m_listingName = FreeName(entries, "listing", ".txt");
    return m_listingName;
}

std::string SimFiles::ListingText() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_listing == nullptr ? std::string() : *m_listing;
}

std::vector<SimFiles::Entry> SimFiles::Scan() const {
    std::vector<Entry> entries;
    const std::unique_ptr<DIR, DirCloser> directory(opendir(m_directory.c_str()));
    if (directory == nullptr) return entries;
    while (const dirent* item = readdir(directory.get())) {
        struct stat info = {};
        if (!IsFileName(item->d_name) || fstatat(dirfd(directory.get()), item->d_name, &info, 0) != 0 ||
            !S_ISREG(info.st_mode))
            continue;
        entries.push_back(
            {item->d_name, static_cast<std::uint64_t>(info.st_size), Nanoseconds(info.st_mtim)});
    }
    std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.name < b.name; });
    return entries;
}

// A name of the form `stem`~N`ending` that neither a file nor a transfer name has.
std::string SimFiles::FreeName(const std::vector<Entry>& entries, const std::string& stem,
                               const std::string& ending) const {
    const auto taken = [&](const std::string& name) {
        const auto at =
            std::lower_bound(entries.begin(), entries.end(), name,
                             [](const Entry& entry, const std::string& n) { return entry.name < n; });
        return m_transferNames.count(name) != 0 || (at != entries.end() && at->name == name);
    };
    std::string name = stem + ending;
    for (unsigned int number = 2; taken(name); ++number)
        name = std::string(stem).append("~").append(std::to_string(number)).append(ending);
    return name;
}

void SimFiles::AppendEntry(const std::vector<Entry>& entries, const Entry& entry, std::string& text) {
    const std::string token = AsToken(entry.name);
    std::string transferName = entry.name;
    if (token != entry.name || IsRequestWord(entry.name)) {
        transferName = FreeName(entries, token, "");
        m_transferNames[transferName] = entry.name;
    }
    const std::uint64_t size = std::min<std::uint64_t>(entry.size, std::numeric_limits<std::uint32_t>::max());
    for (const std::string& item :
         {token, transferName, TypeOf(entry.name), std::to_string(size), std::to_string(entry.modified)})
        text.append(item).append(" , ");
    text.replace(text.size() - 3, 3, "\n");
}
