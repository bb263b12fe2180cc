// Signals that keep coming, to interrupt a blocked call at a time that nobody has to guess.
#ifndef TV_TESTS_INTERRUPTS_H
#define TV_TESTS_INTERRUPTS_H

#include <sys/time.h>

#include <csignal>

// While it lives, SIGALRM comes every few milliseconds, without restart of the interrupted call, and `act` is called
// with the count of signals so far (1 at first). `act` must be fit for a signal handler.
class Interrupts
{
public:
    explicit Interrupts(void (*act)(int count))
    {
        s_act = act;
        s_count = 0;
        struct sigaction sa = {};
        sa.sa_handler = [](int) {
            s_count = s_count + 1;
            s_act(s_count);
        };
        sigaction(SIGALRM, &sa, &m_saved);
        every(EVERY_USEC);
    }
    ~Interrupts()
    {
        every(0);
        sigaction(SIGALRM, &m_saved, nullptr);
    }
    Interrupts(const Interrupts&) = delete;
    Interrupts& operator=(const Interrupts&) = delete;

    int count() const { return s_count; }

private:
    static constexpr int EVERY_USEC = 5000;
    static void every(int usec)
    {
        const itimerval it = {{0, usec}, {0, usec}};
        setitimer(ITIMER_REAL, &it, nullptr);
    }

    static inline void (*s_act)(int) = nullptr;
    static inline volatile sig_atomic_t s_count = 0;
    struct sigaction m_saved = {};
};

#endif // TV_TESTS_INTERRUPTS_H
