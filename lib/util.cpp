// Signals: the flags that handlers leave for the main road, and the installing of handlers.
//
// The handlers may log, since the log core asks g_sigctx what it must not do from a handler; beyond that they only
// store to flags.
#include "util.h"

#include "log.h"
#include "util_int.h"

#include <array>
#include <csignal>
#include <cstring>

TV_LOG_MODULE(0)

volatile sig_atomic_t g_quit = 0;
volatile sig_atomic_t g_goodbye = 0;
volatile sig_atomic_t g_sigctx = 0;
volatile sig_atomic_t g_snapshot = 0;
volatile sig_atomic_t g_snapalarm = 0;
volatile sig_atomic_t g_hup = 0;
volatile sig_atomic_t g_usr1 = 0;
volatile sig_atomic_t g_tdbg = 0;

namespace
{

using util_int::errno_keeper;

constexpr std::array QUIT_SIGNALS = {SIGTERM, SIGQUIT, SIGINT};

int set_action(int signum, void (*handler)(int))
{
    struct sigaction sa = {};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    // No SA_RESTART: the point of most handlers is to wake a blocked read.
    sa.sa_flags = 0;
    return sigaction(signum, &sa, nullptr);
}

// Marks the time in which a handler runs. A handler that interrupts another one puts back what it found.
struct [[nodiscard]] handler_scope {
    errno_keeper errno_before;
    const sig_atomic_t sigctx_before = g_sigctx;

    handler_scope() { g_sigctx = 1; }
    ~handler_scope() { g_sigctx = sigctx_before; }
    handler_scope(const handler_scope&) = delete;
    handler_scope& operator=(const handler_scope&) = delete;
};

} // namespace

int handle_quit_signals(void (*handle_quit)(int signum))
{
    for (const int signum : QUIT_SIGNALS) {
        if (set_action(signum, handle_quit) != 0) {
            const errno_keeper e;
            tv_log(ll::error, "%s: sigaction (quit) ERROR(%d): %s\n", __func__, e.err, strerror(e.err));
            return -1;
        }
    }
    return 0;
}

int handle_sig(int signum, void (*handler)(int signum))
{
    if (0 == set_action(signum, handler)) return 0;
    const errno_keeper e;
    tv_log(ll::error, "%s: sigaction (signo=%d) ERROR(%d): %s\n", __func__, signum, e.err, strerror(e.err));
    return -1;
}

int ignore_sigpipe()
{
    if (0 == set_action(SIGPIPE, SIG_IGN)) return 0;
    const errno_keeper e;
    tv_log(ll::error, "%s: sigaction (SIGPIPE) ERROR(%d): %s\n", __func__, e.err, strerror(e.err));
    return -1;
}

void on_sighup(int signum)
{
    const handler_scope in_handler;
    g_hup = 1;
    tv_log(ll::normal, "SIGHUP(%d)\n", signum);
}

void on_sigusr1(int signum)
{
    const handler_scope in_handler;
    g_usr1 = 1;
    tv_log(ll::normal, "SIGUSR1(%d)\n", signum);
}

void on_tdbg(int signum)
{
    const handler_scope in_handler;
    g_tdbg = 1;
    tv_log(ll::normal, "T-DBG SIG(%d)\n", signum);
}

void on_sigquit(int signum)
{
    const handler_scope in_handler;
    g_quit = 1;
    tv_log(ll::normal, "QUIT-SIG(%d)\n", signum);
}
