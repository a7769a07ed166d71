#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <functional>
#include <thread>

#include "platformcheck/FifoCheck.h"

using namespace ky_platform_check;

namespace {

using Session = KyIpcFifoSession;

/// Where the session's FIFO lies; empty if the system does not tell.
std::string PathOf(const Session& session) {
    char path[4096];
    const std::string link = "/proc/self/fd/" + std::to_string(session.ReadDescriptor());
    const ssize_t length = readlink(link.c_str(), path, sizeof path);
    return length > 0 && path[0] == '/' ? std::string(path, static_cast<size_t>(length)) : std::string();
}

/// The path that a FIFO of this name has or would have; empty, and the check is skipped, if it is not known.
std::string PathFor(Judge& judge, const std::string& name) {
    Session session("platform-check", Session::IPC_CLOSE_NO_CONFIRM);
    judge.Equal("OpenReadFifo()", Session::IPC_OK, session.OpenReadFifo(name.c_str(), 0600));
    std::string path = PathOf(session);
    session.Close();
    if (path.empty()) judge.Skip("it takes /proc to see where the FIFO lies");
    return path;
}

long long Took(const std::function<void()>& work) {
    const long long start = Now();
    work();
    return Now() - start;
}

bool Exists(const std::string& path) {
    struct stat found;
    return lstat(path.c_str(), &found) == 0;
}

void RefusesNames(Judge& judge, const Bench&) {
    for (const char* const name :
         {static_cast<const char*>(nullptr), "", "a/b", "/a", "..", "../a", "a..b"}) {
        Session session("platform-check", Session::IPC_CLOSE_NO_CONFIRM);
        const std::string of = std::string(" of the name \"") + (name == nullptr ? "(null)" : name) + "\"";
        judge.Equal("OpenReadFifo()" + of, Session::IPC_BAD_ARGUMENT, session.OpenReadFifo(name, 0600));
        judge.Equal("OpenCtrlFifo()" + of, Session::IPC_BAD_ARGUMENT, session.OpenCtrlFifo(name));
    }
}

void RefusesArguments(Judge& judge, const Bench& bench) {
    Session closed(nullptr, Session::IPC_CLOSE_NO_CONFIRM);
    KyIpcMsgBuffer buffer(0);
    buffer.Append(reinterpret_cast<const unsigned char*>("old"), 3);
    judge.Equal("WriteCtrl() without a FIFO", Session::IPC_NOT_OPEN, closed.WriteCtrl("x", 1));
    judge.Equal("Read() without a FIFO", Session::IPC_NOT_OPEN, closed.Read(&buffer, 0));
    judge.Equal("length of the buffer after it", 0, buffer.GetLength());
    judge.Equal("ReadDescriptor() without a FIFO", -1, closed.ReadDescriptor());
    judge.Equal("Close() without a FIFO", Session::IPC_OK, closed.Close());
    SessionPair pair;
    if (!pair.Open(judge, bench.fifo)) return;
    judge.Equal("WriteCtrl() of a null pointer", Session::IPC_BAD_ARGUMENT,
                pair.writer.WriteCtrl(nullptr, 1));
    judge.Equal("WriteCtrl() of -1 bytes", Session::IPC_BAD_ARGUMENT, pair.writer.WriteCtrl("x", -1));
    judge.Equal("Read() into a null pointer", Session::IPC_BAD_ARGUMENT, pair.reader.Read(nullptr, 0));
}

void HasMode(Judge& judge, const Bench& bench) {
    for (const mode_t mask : {0U, 022U, 0777U}) {
        for (const unsigned int mode : {0600U, 0660U, 0777U}) {
            Session session("platform-check", Session::IPC_CLOSE_NO_CONFIRM);
            umask(mask);
            judge.Equal("OpenReadFifo()", Session::IPC_OK, session.OpenReadFifo(bench.fifo.c_str(), mode));
            struct stat found = {};
            fstat(session.ReadDescriptor(), &found);
            judge.Equal("mode (decimal) with the umask " + std::to_string(mask), mode, found.st_mode & 07777);
        }
    }
}

void ClosesOnExec(Judge& judge, const Bench& bench) {
    constexpr int MOST = 1024;
    bool before[MOST];
    for (int i = 0; i < MOST; ++i)
        before[i] = fcntl(i, F_GETFD) >= 0;
    SessionPair pair;
    if (!pair.Open(judge, bench.fifo)) return;
    for (int i = 0; i < MOST; ++i) {
        const int flags = before[i] ? -1 : fcntl(i, F_GETFD);
        judge.Expect(flags < 0 || (flags & FD_CLOEXEC) != 0,
                     "descriptor " + std::to_string(i) + " would stay open");
    }
}

void NeedsReader(Judge& judge, const Bench& bench) {
    Session writer("platform-check", Session::IPC_CLOSE_NO_CONFIRM);
    int status = -1;
    judge.Expect(Took([&] { status = writer.OpenCtrlFifo(bench.fifo.c_str()); }) < 500,
                 "it waits for a FIFO");
    judge.Equal("OpenCtrlFifo() of a name without a FIFO", Session::IPC_NO_FIFO, status);
    const std::string path = PathFor(judge, bench.fifo);
    if (path.empty() || mkfifo(path.c_str(), 0600) != 0) return;
    judge.Expect(Took([&] { status = writer.OpenCtrlFifo(bench.fifo.c_str()); }) < 500,
                 "it waits for a reader");
    judge.Equal("OpenCtrlFifo() of a FIFO without a reader", Session::IPC_NO_READER, status);
    unlink(path.c_str());
}

void RefusesOthers(Judge& judge, const Bench& bench) {
    const std::string path = PathFor(judge, bench.fifo);
    const std::string file = bench.directory + "/file";
    if (path.empty()) return;
    WriteFileBytes(file, "a file");
    const struct {
        const char* what;
        std::function<bool()> make;
    } rows[] = {{"a file", [&] { return WriteFileBytes(path, "a file"); }},
                {"a directory", [&] { return mkdir(path.c_str(), 0700) == 0; }},
                {"a symbolic link", [&] { return symlink(file.c_str(), path.c_str()) == 0; }}};
    for (const auto& row : rows) {
        judge.Expect(row.make(), std::string("could not make ") + row.what);
        struct stat before = {};
        struct stat after = {};
        lstat(path.c_str(), &before);
        Session session("platform-check", Session::IPC_CLOSE_NO_CONFIRM);
        const std::string of = std::string(" of ") + row.what;
        judge.Equal("OpenReadFifo()" + of, Session::IPC_REFUSED,
                    session.OpenReadFifo(bench.fifo.c_str(), 0600));
        judge.Equal("OpenCtrlFifo()" + of, Session::IPC_REFUSED, session.OpenCtrlFifo(bench.fifo.c_str()));
        session.Close();
        lstat(path.c_str(), &after);
        judge.Expect(before.st_ino == after.st_ino && before.st_mode == after.st_mode,
                     "it is no more as it was: " + std::string(row.what));
        std::remove(path.c_str());
    }
}

void ReplacesStale(Judge& judge, const Bench& bench) {
    const std::string path = PathFor(judge, bench.fifo);
    if (path.empty() || mkfifo(path.c_str(), 0600) != 0) return;
    const int old = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    judge.Equal("bytes put into the old FIFO", 8, write(old, "old data", 8));
    SessionPair pair;
    if (!pair.Open(judge, bench.fifo)) return;
    pair.IsEmpty(judge, "from the new FIFO");
    pair.Write("new");
    pair.Comes(judge, "new", "from the new FIFO");
    struct stat before = {};
    struct stat now = {};
    fstat(old, &before);
    fstat(pair.reader.ReadDescriptor(), &now);
    judge.Expect(before.st_ino != now.st_ino, "the old FIFO is still in use");
    close(old);
}

void CarriesSizes(Judge& judge, const Bench& bench) {
    SessionPair pair;
    if (!pair.Open(judge, bench.fifo)) return;
    const size_t sizes[] = {0, 1, 3, 4, 5, 255, 256, 4095, 4096, 4097, 65535, 65536, 65537, 300000, 1000000};
    std::thread writer([&] {
        for (const size_t size : sizes)
            if (pair.Write(Noise(size, 3)) != Session::IPC_OK) return;
    });
    for (const size_t size : sizes)
        if (!pair.Comes(judge, Noise(size, 3), "of " + std::to_string(size) + " bytes")) break;
    pair.reader.Close();  // a writer that still waits has none to wait for
    writer.join();
}

void RefusesTooLarge(Judge& judge, const Bench& bench) {
    SessionPair pair;
    if (!pair.Open(judge, bench.fifo)) return;
    judge.Equal("WriteCtrl() of 2 MiB", Session::IPC_TOO_LARGE, pair.Write(std::string(2 << 20, 'x')));
    pair.IsEmpty(judge, "after it");
    pair.Write("next");
    pair.Comes(judge, "next", "after it");
}

void ClosesOwn(Judge& judge, const Bench& bench) {
    Session first("platform-check", Session::IPC_CLOSE_NO_CONFIRM);
    judge.Equal("OpenReadFifo()", Session::IPC_OK, first.OpenReadFifo(bench.fifo.c_str(), 0600));
    SessionPair pair;  // its FIFO takes the place of the first one
    if (!pair.Open(judge, bench.fifo)) return;
    judge.Equal("Close() of a replaced FIFO", Session::IPC_OK, first.Close());
    judge.Equal("OpenCtrlFifo() after it", Session::IPC_OK, pair.writer.OpenCtrlFifo(bench.fifo.c_str()));
    const std::string path = PathOf(pair.reader);
    judge.Equal("Close()", Session::IPC_OK, pair.reader.Close());
    judge.Equal("ReadDescriptor() after it", -1, pair.reader.ReadDescriptor());
    judge.Equal("OpenCtrlFifo() after it", Session::IPC_NO_FIFO, first.OpenCtrlFifo(bench.fifo.c_str()));
    judge.Expect(!Exists(path), "the FIFO is still there");
    if (!pair.Open(judge, bench.fifo)) return;
    const std::string other = bench.fifo + "-2";
    judge.Equal("second OpenReadFifo()", Session::IPC_OK, pair.reader.OpenReadFifo(other.c_str(), 0600));
    judge.Equal("the first after it", Session::IPC_NO_FIFO, first.OpenCtrlFifo(bench.fifo.c_str()));
    {
        Session scoped("platform-check", Session::IPC_CLOSE_NO_CONFIRM);
        scoped.OpenReadFifo(bench.fifo.c_str(), 0600);
    }
    judge.Equal("the FIFO of a destroyed session", Session::IPC_NO_FIFO,
                first.OpenCtrlFifo(bench.fifo.c_str()));
}

void DescriptorPolls(Judge& judge, const Bench& bench) {
    SessionPair pair;
    if (!pair.Open(judge, bench.fifo)) return;
    pollfd fifo = {pair.reader.ReadDescriptor(), POLLIN, 0};
    judge.Equal("poll() of an empty FIFO", 0, poll(&fifo, 1, 0));
    pair.Write("one");
    pair.Write("two");
    judge.Equal("poll() of a FIFO with messages", 1, poll(&fifo, 1, FIFO_BOUND));
    pair.Comes(judge, "one", "of two");
    pair.Comes(judge, "two", "of two");
    pair.writer.Close();
    judge.Equal("poll() after the last writer has closed", 0, poll(&fifo, 1, 0));
    pair.IsEmpty(judge, "after the last writer has closed");
    judge.Equal("OpenCtrlFifo()", Session::IPC_OK, pair.writer.OpenCtrlFifo(bench.fifo.c_str()));
    pair.Write("three");
    pair.Comes(judge, "three", "of the next writer");
}

/// Signals this process every five milliseconds, without a restart of calls.
void Interrupt(bool on) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    const timeval often = {0, on ? 5000 : 0};
    const itimerval timer = {often, often};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

void KeepsBounds(Judge& judge, const Bench& bench) {
    SessionPair pair;
    if (!pair.Open(judge, bench.fifo)) return;
    KyIpcMsgBuffer buffer(0);
    const std::string large = Noise(1000000, 4);  // more than any FIFO takes at once
    for (const bool interrupted : {false, true}) {
        const std::string how = interrupted ? ", with signals" : "";
        for (const int bound : {-1, 0, 60}) {
            Interrupt(interrupted);
            int readStatus = -1;
            int writeStatus = -1;
            const long long read = Took([&] { readStatus = pair.reader.Read(&buffer, bound); });
            pair.writer.SetWriteBound(bound);
            const long long written = Took([&] { writeStatus = pair.Write(large); });
            Interrupt(false);
            const std::string within = " with the bound " + std::to_string(bound) + how;
            judge.Equal("Read()" + within, Session::IPC_TIMEOUT, readStatus);
            judge.Equal("WriteCtrl()" + within, Session::IPC_TIMEOUT, writeStatus);
            judge.Expect(read >= bound - 1 && read < bound + 2000,
                         "Read()" + within + " took " + std::to_string(read) + " ms");
            judge.Expect(written >= bound - 1 && written < bound + 2000,
                         "WriteCtrl()" + within + " took " + std::to_string(written) + " ms");
            pair.IsEmpty(judge, "after a message that was given up");
        }
    }
    pair.writer.SetWriteBound(FIFO_BOUND);
    judge.Equal("the next WriteCtrl()", Session::IPC_OK, pair.Write("next"));
    pair.Comes(judge, "next", "after messages that were given up");
}

}  // namespace

void ky_platform_check::RemoveFifos(const std::string& prefix) {
    Session session("platform-check", Session::IPC_CLOSE_NO_CONFIRM);
    session.OpenReadFifo((prefix + "-tidy").c_str(), 0600);
    const std::string path = PathOf(session);
    const std::string directory = path.substr(0, path.rfind('/') + 1);
    DIR* const entries = opendir(directory.c_str());
    if (entries == nullptr) return;
    while (const dirent* const entry = readdir(entries)) {
        const std::string name = entry->d_name;
        if (name.compare(0, prefix.size(), prefix) == 0) std::remove((directory + name).c_str());
    }
    closedir(entries);
}

Checks ky_platform_check::FifoChecks() {
    return {{"fifo: unfit names are refused", RefusesNames},
            {"fifo: bad arguments and closed sessions are refused", RefusesArguments},
            {"fifo: it is made with its mode, whatever the umask", HasMode},
            {"fifo: every descriptor closes on exec", ClosesOnExec},
            {"fifo: without a reader opening fails at once", NeedsReader},
            {"fifo: what is no FIFO is refused and left as it was", RefusesOthers},
            {"fifo: one that was left is replaced, with what stands in it", ReplacesStale},
            {"fifo: messages of 0 to 1,000,000 bytes arrive whole", CarriesSizes},
            {"fifo: a message of 2 MiB is refused", RefusesTooLarge},
            {"fifo: Close() removes its own FIFO and no other", ClosesOwn},
            {"fifo: the descriptor polls, and outlives its writers", DescriptorPolls},
            {"fifo: Read() and WriteCtrl() keep their bounds, also under signals", KeepsBounds}};
}
