#ifndef PLATFORM_KYTIMERMGR_H
#define PLATFORM_KYTIMERMGR_H

/// The platform's timer manager, as far as the library uses it: the engine owns one and starts no timer.
class KyTimerMgr {
public:
    /// No timer has this identifier.
    static constexpr unsigned short INVALID_TIMER_ID = 0xFFFF;
};

#endif
