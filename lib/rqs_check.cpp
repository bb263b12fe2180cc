// The loop's checker and printer.
#include "rqs.h"
#include "rqs_int.h"

#include <cstring>

namespace
{

constexpr long NSEC_PER_SEC = 1000000000;

bool is_empty(const struct xvec& v)
{
    return v.max_len == 0 && v.len == 0;
}

// Before rqs_init and after rqs_destroy: nothing is held.
bool closed_validate()
{
    return is_empty(g_rqs.events) && is_empty(g_rqs.nopoll_rm) && g_rqs.nopoll.max_len == 0 && g_rqs.poll_fds == 0 &&
           g_ino.fd == -1 && !g_ino.wfd_ht && !g_ino.in_epoll && g_ino.wfd_count == 0;
}

bool postponed_validate()
{
    for (size_t i = 0; i < g_rqs.nopoll_rm.len; ++i) {
        if (static_cast<const ssize_t*>(g_rqs.nopoll_rm.data)[i] < 0) return false;
    }
    return true;
}

bool watches_validate()
{
    if (g_ino.fd < 0 || !g_ino.wfd_ht || g_ino.wfd_count < 0) return false;
    // A watch enters the table ahead of the count, and leaves it behind.
    const size_t count = static_cast<size_t>(g_ino.wfd_count);
    const size_t in_table = nkht_count(g_ino.wfd_ht);
    if (in_table != count && in_table != count + 1) return false;
    return count == 0 || (g_ino.in_epoll && g_rqs.poll_fds > 0);
}

const char* state_of(int loopfd)
{
    if (loopfd > 0) return "ready";
    return loopfd == 0 ? "not initialized" : "destroyed";
}

int dump_entry(void* entries, size_t i, void* fp)
{
    const struct nopoll_ref& e = static_cast<const struct nopoll_ref*>(entries)[i];
    (void)fprintf(static_cast<FILE*>(fp), "  [%zu] fd%d, events=0x%x, udata=%p, index at %p\n", i, e.fd, e.events,
                  e.udata, static_cast<const void*>(e.index));
    return 0;
}

} // namespace

bool rqs_validate()
{
    if (memcmp(g_ino.tag.sym, rqs_int::INO_TAG, sizeof(rqs_int::INO_TAG)) != 0) return false;
    if (g_rqs.loop_stage < RQS_STAGE_WAIT || g_rqs.loop_stage > RQS_STAGE_POST2) return false;
    if (g_rqs.itime.tv_nsec < 0 || g_rqs.itime.tv_nsec >= NSEC_PER_SEC) return false;
    if (g_rqs.loopfd <= 0) return closed_validate();
    return rqs_int::g_cfg && xvec_validate(&g_rqs.events) && xvec_validate(&g_rqs.changes) &&
           xvlst_validate(&g_rqs.nopoll) && xvec_validate(&g_rqs.nopoll_rm) && postponed_validate() &&
           watches_validate();
}

void rqs_dump(FILE* fp)
{
    const bool valid = rqs_validate();
    (void)fprintf(fp, "event loop %s, %s: epoll fd%d, stage %d, %zu polled, %zu events of the last wait\n",
                  state_of(g_rqs.loopfd), valid ? "valid" : "INVALID", g_rqs.loopfd, g_rqs.loop_stage, g_rqs.poll_fds,
                  g_rqs.events.len);
    (void)fprintf(fp, "time-out %ld s %ld ns, clock %ld.%09ld\n", static_cast<long>(g_rqs.tmout.tv_sec),
                  g_rqs.tmout.tv_nsec, static_cast<long>(g_rqs.itime.tv_sec), g_rqs.itime.tv_nsec);
    (void)fprintf(fp, "inotify fd%d, %s, %zd watches\n", g_ino.fd, g_ino.in_epoll ? "polled" : "not polled",
                  g_ino.wfd_count);
    (void)fprintf(fp, "%zu no-poll events, %zu removals postponed\n", g_rqs.nopoll.len, g_rqs.nopoll_rm.len);
    if (valid && g_rqs.nopoll.len > 0) (void)xvlst_each_aux(&g_rqs.nopoll, fp, dump_entry, nullptr);
}
