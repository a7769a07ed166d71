#ifndef PLATFORM_KYTIMERMGR_H
#define PLATFORM_KYTIMERMGR_H

/// The platform's timer manager, as far as the library knows it: the engine owns one, as every platform
/// client does, and starts no timer.
class KyTimerMgr {
public:
    /// The identifier that no timer has.
    static constexpr unsigned short INVALID_TIMER_ID = 0xFFFF;
};

#endif
