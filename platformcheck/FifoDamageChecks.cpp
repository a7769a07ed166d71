#include <fcntl.h>
#include <poll.h>
#include <signal.h>

#include <memory>

#include "platformcheck/FifoCheck.h"

using namespace ky_platform_check;

namespace {

using Session = KyIpcFifoSession;

constexpr int WRITERS = 4;
constexpr int MESSAGES = 50;

/// A message that tells by itself who has written it and whether it is whole.
std::string NumberedMessage(int writer, int number) {
    const int size = writer * 911 + number * 733 % 30000;
    return std::to_string(writer) + " " + std::to_string(number) + " " +
           Noise(static_cast<size_t>(size), static_cast<unsigned int>(number));
}

void WriteNumbered(const std::string& fifo, int writer) {
    Session session("platform-check", Session::IPC_CLOSE_NO_CONFIRM);
    if (session.OpenCtrlFifo(fifo.c_str()) != Session::IPC_OK) return;
    for (int number = 0; number < MESSAGES; ++number) {
        const std::string message = NumberedMessage(writer, number);
        session.WriteCtrl(message.data(), static_cast<int>(message.size()));
    }
}

void KeepsWritersApart(Judge& judge, const Bench& bench) {
    SessionPair pair;
    if (!pair.Open(judge, bench.fifo)) return;
    std::vector<std::unique_ptr<Peer>> peers;
    for (int writer = 0; writer < WRITERS; ++writer)
        peers.push_back(std::make_unique<Peer>([&, writer] { WriteNumbered(bench.fifo, writer); }));
    int next[WRITERS] = {};
    KyIpcMsgBuffer buffer(0);
    for (int count = 0; count < WRITERS * MESSAGES; ++count) {
        if (!judge.Equal("Read() of message " + std::to_string(count), Session::IPC_OK,
                         pair.reader.Read(&buffer, FIFO_BOUND)))
            return;
        const std::string message = Text(buffer);
        const int writer = message.empty() ? -1 : message[0] - '0';
        if (!judge.Expect(writer >= 0 && writer < WRITERS, "a message of no writer")) return;
        if (!judge.Equal("a message", NumberedMessage(writer, next[writer]), message)) return;
        ++next[writer];
    }
    pair.IsEmpty(judge, "after all messages");
}

void OutlivesWriter(Judge& judge, const Bench& bench) {
    SessionPair pair;
    if (!pair.Open(judge, bench.fifo)) return;
    const std::string large = Noise(1000000, 5);
    Peer dying([&] { pair.Write(large); });
    pollfd fifo = {pair.reader.ReadDescriptor(), POLLIN, 0};
    judge.Equal("poll() for the first part of a message", 1, poll(&fifo, 1, FIFO_BOUND));
    Pause(20);  // it fills the FIFO, and waits
    dying.Kill();
    const Peer living([&] { pair.Write("next"); });
    pair.Comes(judge, "next", "after a writer that has died");
}

/// What stands in the FIFO for a message.
std::string RawBytes(SessionPair& pair, const std::string& message) {
    pair.Write(message);
    std::string bytes(60000, '\0');
    const ssize_t count = read(pair.reader.ReadDescriptor(), bytes.data(), bytes.size());
    bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return bytes;
}

/// Puts bytes into the session's FIFO as they are. @return false, and the check is skipped, if that cannot be
bool PutRaw(Judge& judge, const Session& session, const std::string& bytes) {
    const std::string link = "/proc/self/fd/" + std::to_string(session.ReadDescriptor());
    const int fifo = open(link.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fifo < 0) judge.Skip("it takes /proc to write to the FIFO");
    const ssize_t count = fifo < 0 ? -1 : write(fifo, bytes.data(), bytes.size());
    if (fifo >= 0) close(fifo);
    return fifo >= 0 && judge.Equal("bytes written to the FIFO", static_cast<long long>(bytes.size()), count);
}

void CarriesItsOwnFrames(Judge& judge, const Bench& bench) {
    SessionPair pair;
    if (!pair.Open(judge, bench.fifo)) return;
    std::string message = "message";
    for (int i = 0; i < 4; ++i) {
        message = RawBytes(pair, message);
        judge.Expect(!message.empty(), "nothing stands in the FIFO");
        pair.Write(message);
        if (!pair.Comes(judge, message, "that looks like the bytes of one")) return;
    }
}

void SkipsDamage(Judge& judge, const Bench& bench) {
    SessionPair pair;
    if (!pair.Open(judge, bench.fifo)) return;
    const std::string frame = RawBytes(pair, "0123456789");
    std::vector<std::string> damages = {"x", Noise(5000, 6), frame.substr(1)};
    for (size_t length = 1; length < frame.size(); ++length)
        damages.push_back(frame.substr(0, length));
    for (const std::string& damage : damages) {
        if (!PutRaw(judge, pair.reader, damage)) return;
        pair.Write("next");
        if (!pair.Comes(judge, "next", "after " + std::to_string(damage.size()) + " bytes of no whole one"))
            return;
    }
}

void GoesOnWithPart(Judge& judge, const Bench& bench) {
    SessionPair pair;
    if (!pair.Open(judge, bench.fifo)) return;
    const std::string message = Noise(20000, 7);
    const std::string frame = RawBytes(pair, message);
    KyIpcMsgBuffer buffer(0);
    for (size_t from = 0, part = 5000; from < frame.size(); from += part) {
        if (!PutRaw(judge, pair.reader, frame.substr(from, part))) return;
        if (from + part >= frame.size()) break;
        judge.Equal("Read() of a part", Session::IPC_TIMEOUT, pair.reader.Read(&buffer, 10));
        const std::string seen = Text(buffer);
        judge.Equal("the part that has come", message.substr(0, seen.size()), seen);
        judge.Expect(seen.size() + 100 > from + part, "only " + std::to_string(seen.size()) +
                                                          " bytes of the " + std::to_string(from + part) +
                                                          " that have come");
    }
    pair.Comes(judge, message, "that came in parts");
}

void NoticesLostReader(Judge& judge, const Bench& bench) {
    SessionPair pair;
    if (!pair.Open(judge, bench.fifo)) return;
    struct sigaction before = {};
    struct sigaction after = {};
    sigset_t maskBefore;
    sigset_t maskAfter;
    sigaction(SIGPIPE, nullptr, &before);
    pthread_sigmask(SIG_SETMASK, nullptr, &maskBefore);
    pair.reader.Close();
    judge.Equal("WriteCtrl() after the reader has closed", Session::IPC_NO_READER, pair.Write("lost"));
    sigaction(SIGPIPE, nullptr, &after);
    pthread_sigmask(SIG_SETMASK, nullptr, &maskAfter);
    judge.Expect(before.sa_handler == after.sa_handler, "what the process does with SIGPIPE has changed");
    judge.Equal("whether SIGPIPE is blocked", sigismember(&maskBefore, SIGPIPE),
                sigismember(&maskAfter, SIGPIPE));
}

}  // namespace

Checks ky_platform_check::FifoDamageChecks() {
    return {{"fifo: messages of several writers come out whole and in order", KeepsWritersApart},
            {"fifo: a writer that dies within a message costs that message only", OutlivesWriter},
            {"fifo: a message may look like what stands in the FIFO", CarriesItsOwnFrames},
            {"fifo: bytes of no whole message are skipped", SkipsDamage},
            {"fifo: a message goes on where the bound has cut its reading", GoesOnWithPart},
            {"fifo: a reader that is gone is a status and no SIGPIPE", NoticesLostReader}};
}
