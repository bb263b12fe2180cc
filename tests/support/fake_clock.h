// A clock that belongs to the test: time() and clock_gettime() as the code under test sees them.
//
//     fake_clock::set(1000);      // from here on time() is 1000 and the clocks stand at 1000 s
//     fake_clock::advance_ms(250);
//     fake_clock::fail(EPERM);    // no clock can be read
//     fake_clock::release();      // the machine's own clocks again
//
// The program's own definitions stand ahead of those in the C library, so this must be included by exactly one source
// of a test program. Until set() is called everything passes through to the kernel.
#ifndef TESTS_SUPPORT_FAKE_CLOCK_H
#define TESTS_SUPPORT_FAKE_CLOCK_H

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace fake_clock
{

struct state {
    bool is_on = false;
    int error = 0;                // errno of a clock that can't be read; 0: all can
    struct timespec now = {0, 0}; // all clocks show the same
};

inline state g;

inline void set(time_t sec, long nsec = 0)
{
    g = {true, 0, {sec, nsec}};
}

inline void advance_ms(long ms)
{
    const long nsec = g.now.tv_nsec + ms % 1000 * 1000000;
    g.now.tv_sec += ms / 1000 + nsec / 1000000000;
    g.now.tv_nsec = nsec % 1000000000;
}

inline void advance_sec(long sec)
{
    g.now.tv_sec += sec;
}

inline void fail(int err)
{
    g.error = err;
}

inline void release()
{
    g = {};
}

} // namespace fake_clock

extern "C" int clock_gettime(clockid_t id, struct timespec* tms) noexcept
{
    if (fake_clock::g.error != 0) {
        errno = fake_clock::g.error;
        return -1;
    }
    if (!fake_clock::g.is_on) return static_cast<int>(syscall(SYS_clock_gettime, id, tms));
    *tms = fake_clock::g.now;
    return 0;
}

extern "C" time_t time(time_t* t) noexcept
{
    struct timespec tms;
    (void)clock_gettime(CLOCK_REALTIME, &tms);
    if (t) *t = tms.tv_sec;
    return tms.tv_sec;
}

#endif // TESTS_SUPPORT_FAKE_CLOCK_H
