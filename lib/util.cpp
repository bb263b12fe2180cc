// Signals: the flags that handlers leave for the main road, and the installing of handlers.
//
// The handlers may log, since the log core asks g_sigctx what it must not do from a handler; beyond that they only
// store to flags.
#include "util.h"

volatile sig_atomic_t g_quit = 0;
volatile sig_atomic_t g_goodbye = 0;
volatile sig_atomic_t g_sigctx = 0;
volatile sig_atomic_t g_snapshot = 0;
volatile sig_atomic_t g_snapalarm = 0;
volatile sig_atomic_t g_hup = 0;
volatile sig_atomic_t g_usr1 = 0;
volatile sig_atomic_t g_tdbg = 0;
