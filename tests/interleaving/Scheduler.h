#ifndef INTERLEAVING_SCHEDULER_H
#define INTERLEAVING_SCHEDULER_H

#include <ucontext.h>

#include <climits>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// Microseconds since 1970.
using Time = long long;
constexpr Time kMillisecond = 1000;
constexpr Time kSecond = 1000 * kMillisecond;
constexpr Time kNever = LLONG_MAX;

/// A thread of the engine or of its environment. All fibers run on one thread of the system, each with a stack of
/// its own.
struct Fiber {
    std::string name;
    std::function<void()> body;
    bool joined = false;  ///< or never to be
    bool ended = false;

    // The scheduler's.
    const void* waitingFor = nullptr;
    Time wake = 0;  // runnable from then on
    int priority = 0;
    unsigned long workSeen = 0;  // at its last look
    int looks = 0;               // since that work
    Time pause = 0;              // between looks
    ucontext_t context = {};
    std::unique_ptr<char[]> stack;
    void* sanitizerStack = nullptr;
    void* exceptions[2] = {};
};

/// Runs fibers one at a time, and switches only at scheduling points. A seed decides which one goes on: one at
/// random at every point, or the one with the highest of random priorities. At a few random points, the running
/// fiber falls behind or is held up. The same seed gives the same run.
///
/// Time is virtual. It moves when all fibers wait. It also moves when the others only poll: they have looked at the
/// clock several times, or yielded, since something was last done.
class Scheduler {
public:
    /// Whether a point may change what a polling fiber waits for.
    enum Effect { QUIET, WORK };

    /// Callbacks to the environment, on the fiber that causes them.
    struct Listener {
        /// @return false if the thread cannot be started
        virtual bool ThreadStarts(Fiber& creator, Fiber& thread) = 0;
        virtual void ThreadEnds(Fiber& thread) = 0;
        /// The mutex has been released that this function itself takes. Nothing switches meanwhile.
        virtual void Unlocked() = 0;

    protected:
        ~Listener() = default;
    };

    Scheduler(unsigned long long seed, bool trace, Listener& listener);

    /// The scheduler whose fiber calls; null outside of runs.
    static Scheduler* Running() { return s_running; }

    Fiber& Spawn(const std::string& name, std::function<void()> body);
    /// A fiber that has to be joined; null if the listener refuses it.
    Fiber* StartThread(std::function<void()> body);
    /// Runs all fibers to their ends. @return the first failure; empty for none
    std::string Run();

    Fiber& Current() { return *m_current; }
    Time Now() const { return m_now; }
    /// How long fibers have been held up at random, altogether.
    Time HeldUp() const { return m_heldUp; }
    unsigned Random(unsigned below);
    Time Pick(std::initializer_list<Time> times) { return times.begin()[Random(unsigned(times.size()))]; }
    void Trace(const char* what, const std::string& detail);
    /// Lets the running fiber fall behind at one of the next eight points.
    void DisturbSoon() { m_disturbed.push_back(m_points + 1 + Random(8)); }

    /// Ends the run. Does not return; the fibers stay as they are.
    [[noreturn]] void Fail(const std::string& text);
    void Point(const char* what, Effect effect = WORK, const std::string& detail = "");
    /// A point at which the fiber polls for the work of others. `pause` is how far the clock moves if all fibers only poll.
    void Look(const char* what, Time pause);
    /// @return false if nothing has woken the fiber up to `until`
    bool Wait(const void* object, Time until = kNever);
    void Wake(const void* object, bool all = true);
    void Sleep(Time length, Effect effect = WORK);
    bool TryLock(const void* mutex);
    void Lock(const void* mutex);
    void Unlock(const void* mutex);

private:
    static void Enter();
    void FallBehind();
    bool Polls(const Fiber& fiber) const;
    Fiber& Choose();
    std::string Unfinished() const;
    void SwitchTo(Fiber& next);

    static Scheduler* s_running;

    unsigned long long m_random;
    const bool m_trace;
    Listener& m_listener;
    const bool m_byPriority;
    std::vector<unsigned long> m_disturbed;  // points
    Time m_now;
    Time m_heldUp = 0;
    unsigned long m_points = 0;
    unsigned long m_work = 1;
    int m_lowest = 0;
    bool m_yields = false;  // the fiber at a point
    bool m_listening = false;
    std::string m_failure;
    std::vector<std::unique_ptr<Fiber>> m_fibers;
    std::vector<Fiber*> m_ready;
    std::vector<std::pair<const void*, Fiber*>> m_locked;
    const void* m_watched = nullptr;  // the mutex that the listener takes
    Fiber m_main;
    Fiber* m_current = &m_main;
    const void* m_mainStack = nullptr;
    std::size_t m_mainStackSize = 0;
};

#endif
