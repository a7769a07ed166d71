#ifndef INTERLEAVING_WORLD_H
#define INTERLEAVING_WORLD_H

#include <sys/stat.h>

#include <list>
#include <map>
#include <string>

#include "engine/KyTferClient.h"
#include "interleaving/Scheduler.h"

constexpr Time kPatience = 8 * kSecond;  ///< one poll more, and how far the clock moves while nothing happens

/// One call of the engine, and how the device and the system react to it.
struct Action {
    enum Kind { FETCH, LISTING, PUSH, ABANDON, STATUS, STOP, NOTHING };
    enum Answer { READY, SILENT, NONE, LATE, TWICE, SECOND_NAME };
    enum Delivery { WHOLE, OTHER_SIZE, MISSING, AFTERWARDS, HANGING };
    enum Fault { NO_FAULT, MOVE, MONITOR_THREAD, WORKER_THREAD, LAST_WRITE };

    const char* name;
    Kind kind;
    Answer answer = READY;
    Delivery delivery = WHOLE;
    Fault fault = NO_FAULT;
    int times = 1;
};

/// A fetch, a listing, a file that the device has named for a listing, or a push, as seen outside of the engine.
struct Transfer {
    const Action* action;
    int request;           ///< its number; a named file has that of the listing
    std::string name;      ///< of the file; on the card for a push
    unsigned size;         ///< whole
    std::string xferName;  ///< of a push on the device
    Time began = 0;        ///< 0 for not yet
    Time cancelled = 0;    ///< 0 for not
    Time limit = 0;        ///< how long it may take
    KyTferStatusMsg::TferStatus status = KyTferStatusMsg::TFER_STATUS_NONE;
    bool replaced = false;
    bool cutShort = false;   ///< replaced before its end
    bool crossed = false;    ///< with an answer that was meant for another
    bool watched = false;    ///< by a monitor
    bool reported = false;   ///< complete by a monitor
    bool completed = false;  ///< by a worker
    bool failed = false;     ///< by a worker, which does not end it while it is watched
    bool reopened = false;   ///< by an answer after its end
    bool repeated = false;   ///< the device has answered twice
    bool left = false;       ///< may stay at the landing path
    bool moved = false;
    bool told = false;  ///< the device knows of its success
    int pushed = 0;     ///< calls of the proxy
};

/// Marks an expression or a block as the engine's code. Allocations fail only there.
inline bool g_inEngine = false;
template <bool kInEngine>
struct Mark {
    ~Mark() { g_inEngine = before; }
    const bool before = std::exchange(g_inEngine, kInEngine);
};
using Inside = Mark<true>;
using Outside = Mark<false>;

/// The environment of the engine in one run: the card's files, and the rules that every run must keep. It reads the record
/// each time the engine releases its mutex, and so knows which fiber has written a row.
class World : public Scheduler::Listener {
public:
    /// The task of a fiber.
    struct Role {
        enum Kind { SERVICE, CALLER, DEVICE, MONITOR, WORKER, PUSH_WORKER } kind = SERVICE;
        Transfer* transfer = nullptr;
        const Transfer* before = nullptr;  ///< current when the device began to speak
        bool late = false;                 ///< a worker's transfer may have been replaced before it began
        std::string story;                 ///< what a worker has done; what a request has started
    };
    /// A file that the device has named.
    struct Named {
        const Action* action;
        int request;
        unsigned size;
    };

    static const std::string kStaging, kLanding, kDownload, kSource, kListing;
    /// A file that the device does not have.
    static const Action kNoFile;

    World(unsigned long long seed, bool trace) : scheduler(seed, trace, *this) { s_current = this; }
    virtual ~World() = default;
    World(const World&) = delete;
    World& operator=(const World&) = delete;
    static World& Current() { return *s_current; }

    Scheduler scheduler;
    KyTferClient engine;
    /// Allocations of the engine fail at random. Then only the rules hold that do not depend on rows.
    const bool shortOfMemory = scheduler.Random(8) == 0;
    const unsigned shortage = unsigned(scheduler.Pick({5, 25, 125}));  ///< one allocation of so many fails
    bool memoryBack = !shortOfMemory;                                  ///< for the last fetch
    bool hung = false;                                                 ///< a call of the proxy, for long
    std::map<std::string, unsigned> files;                             ///< sizes by path
    std::map<std::string, Named> named;
    Transfer* current = nullptr;  ///< the fetch or listing, or the file that was named for it
    int rows = 0;                 ///< changes of the record
    bool stopping = false;        ///< Stop has been called
    bool stopped = false;         ///< and has returned

    bool AllocationFails();
    Role& Me() { return m_roles[&scheduler.Current()]; }
    void Require(bool holds, const std::string& what);
    Transfer& Add(const Action& action, int request, const std::string& name, unsigned size);
    /// The last one of that name; null for none.
    Transfer* Last(const std::string& name);
    /// True if a fetch or listing has to be refused.
    bool Busy() const;

    // Calls of the proxy and of file functions, which check their arguments. File functions return 0 or an error number.
    void Told(unsigned short point, const std::string& value);
    void Asked(const std::string& name);
    void Pushed(const std::string& directory, const std::string& name, const std::string& xferName);
    int Measure(const std::string& path, struct stat& info);
    int Move(const std::string& from, const std::string& to);
    int Remove(const std::string& path);

    /// @param due  when Stop had to return if no call of the proxy hung
    void CheckStopped(Time due);
    void CheckEnd();

private:
    bool ThreadStarts(Fiber& creator, Fiber& thread) override;
    void ThreadEnds(Fiber& thread) override;
    void Unlocked() override;
    void Changed(const KyTferStatusMsg& row);
    Transfer& Writer(const KyTferStatusMsg& row);
    Transfer& NameFile(const std::string& name);
    void Begin(Transfer& transfer);
    void ReplaceAll();
    void CheckRow(const KyTferStatusMsg& row, const Transfer& transfer);
    void Note(const KyTferStatusMsg& row, Transfer& transfer);
    void CheckStory(const Role& role);
    void CheckTransfer(const Transfer& transfer);
    bool LongHeldUp() const { return scheduler.HeldUp() >= kSecond; }
    template <typename Predicate>
    bool Any(Predicate predicate) const;

    static World* s_current;

    std::map<const Fiber*, Role> m_roles;
    std::list<Transfer> m_transfers;
    KyTferStatusMsg m_row{512};
};

#endif
