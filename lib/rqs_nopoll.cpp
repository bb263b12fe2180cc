// No-poll events. Entries keep their index while others come and go, so an owner may hold it; removals that a callback
// asks for wait for the end of the walk.
#include "log.h"
#include "psensor.h"
#include "rqs.h"
#include "rqs_int.h"

#include <sys/epoll.h>

TV_LOG_MODULE(0)

namespace
{

constexpr size_t FIRST_ROOM = 20;
constexpr size_t GROWTH = 10;

struct nopoll_ref* entry_at(size_t i)
{
    return static_cast<struct nopoll_ref*>(g_rqs.nopoll.data) + i;
}

ssize_t postponed_at(size_t i)
{
    return static_cast<const ssize_t*>(g_rqs.nopoll_rm.data)[i];
}

// The entry with this index, or null.
const struct nopoll_ref* find_entry(ssize_t index)
{
    const auto i = static_cast<size_t>(index); // a negative one is far beyond any capacity
    return i < g_rqs.nopoll.max_len && g_rqs.nopoll.taken[i] ? entry_at(i) : nullptr;
}

int add_nopoll(int fd, uint32_t events, ssize_t* pindex, void* udata)
{
    const ssize_t i = xvlst_add(&g_rqs.nopoll, sizeof(struct nopoll_ref), GROWTH);
    if (i < 0) {
        tv_log(ll::panic, "%s: cannot add a no-poll event\n", __func__);
        rqs_int::abort_with_stack();
    }
    *entry_at(static_cast<size_t>(i)) = {.events = events, .fd = fd, .udata = udata, .index = pindex};
    if (pindex) *pindex = i;
    tv_log(ll::debug, "%s[%ld]: fd%d, events=0x%lx, udata=%p, total=%ld events.\n", __func__, i, fd,
           static_cast<unsigned long>(events), udata, static_cast<long>(g_rqs.nopoll.len));
    rqs_int::check();
    return 0;
}

int call_back(size_t sensor, rqs_event_cb_t cb, const struct nopoll_ref& e)
{
    psensor_start(sensor);
    const int rc = cb(e.fd, 0, e.udata, nullptr);
    psensor_stop(sensor);
    return rc;
}

// The entry is a copy: the callback may add events, which may move the entries.
int on_nopoll(void* entries, size_t i)
{
    const struct nopoll_ref e = static_cast<const struct nopoll_ref*>(entries)[i];
    tv_log(ll::debug, "%s: idx=%ld fd=%d udata=%p\n", __func__, static_cast<long>(i), e.fd, e.udata);
    if ((e.events & EPOLLIN) != 0) return call_back(PRF_EVREAD, rqs_int::g_cfg->cb.read, e);
    if ((e.events & EPOLLOUT) != 0) return call_back(PRF_EVWRITE, rqs_int::g_cfg->cb.write, e);
    tv_log(ll::error, "%s: unrecognized event mask: 0x%lx\n", __func__, static_cast<unsigned long>(e.events));
    return -1;
}

void del_entry(const char* caller, ssize_t index)
{
    if (index >= 0 && xvlst_del(&g_rqs.nopoll, static_cast<size_t>(index), nullptr) == 0) return;
    tv_log(ll::panic, "%s: failed to remove j=%ld\n", caller, index);
    rqs_int::abort_with_stack();
}

} // namespace

// ---- for the loop ---------------------------------------------------------------------------------------------

void rqs_int::init_nopoll()
{
    if (xvlst_reserve(&g_rqs.nopoll, FIRST_ROOM, sizeof(struct nopoll_ref), GROWTH) == 0 &&
        xvec_reserve(&g_rqs.nopoll_rm, FIRST_ROOM, sizeof(ssize_t), GROWTH) == 0)
        return;
    tv_log(ll::panic, "%s: no room for no-poll events\n", __func__);
    abort_with_stack();
}

void rqs_int::setup_nopoll_events()
{
    // What on_idle or the second post-processing postponed, or a turn that ended early left.
    (void)rqs_purge_nopoll_rm(); // it has no failure to report

    // One more than there are entries: a vector that an addition would fill to the last block goes to the allocator.
    const size_t want = g_rqs.nopoll.len + 1;
    if (g_rqs.nopoll_rm.max_len < want && xvec_reserve(&g_rqs.nopoll_rm, want, sizeof(ssize_t), GROWTH) != 0) {
        tv_log(ll::panic, "Failed to reserve %ld elements for nopoll_rm container.\n",
               static_cast<long>(g_rqs.nopoll.len));
        abort_with_stack();
    }
    g_rqs.nopoll_rm.len = 0;
}

int rqs_int::process_nopoll_events()
{
    size_t pos = 0; // asked for, since a walk without it doesn't stop
    const int rc = xvlst_each(&g_rqs.nopoll, on_nopoll, &pos);
    if (rc != 0) tv_log(ll::error, "%s: FAILED(%d)\n", __func__, rc);
    return rc;
}

// ---- no-poll events -------------------------------------------------------------------------------------------

int rqs_add_nopoll_reader(int fd, ssize_t* pindex, void* udata)
{
    return add_nopoll(fd, EPOLLIN, pindex, udata);
}

int rqs_add_nopoll_writer(int fd, ssize_t* pindex, void* udata)
{
    return add_nopoll(fd, EPOLLOUT, pindex, udata);
}

void rqs_rm_nopoll(ssize_t index)
{
    del_entry(__func__, index);
    rqs_int::check();
}

void rqs_pprm_nopoll(ssize_t index)
{
    tv_assert_logged(index >= 0);
    const ssize_t pos = xvec_add(&g_rqs.nopoll_rm, sizeof(ssize_t), GROWTH);
    if (pos < 0) {
        tv_log(ll::panic, "%s: cannot add an item to nopoll_rm\n", __func__);
        rqs_int::abort_with_stack();
    }
    static_cast<ssize_t*>(g_rqs.nopoll_rm.data)[pos] = index;
    tv_log(ll::debug, "%s: added no-poll event[%ld] at pos=%ld, total: %ld no-poll events.\n", __func__, index, pos,
           static_cast<long>(g_rqs.nopoll.len));
    rqs_int::check();
}

int rqs_purge_nopoll_rm()
{
    for (size_t i = 0; i < g_rqs.nopoll_rm.len; ++i) {
        const ssize_t j = postponed_at(i);
        const struct nopoll_ref* e = find_entry(j);
        if (e) {
            tv_log(ll::debug, "%s: fd=%d, udata=%p (j=%ld)\n", __func__, e->fd, e->udata, j);
            if (e->index) *e->index = -1;
        }
        del_entry(__func__, j);
    }
    g_rqs.nopoll_rm.len = 0;
    rqs_int::check();
    return 0;
}
