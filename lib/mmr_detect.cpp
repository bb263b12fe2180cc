// The ring's first input: what stream it is and how long a unit is. Decided once; a stream that changes later goes
// unnoticed here and shows as lost sync at the reader.
#include "dstream.h"
#include "log.h"
#include "mmr_int.h"

#include <cerrno>

TV_LOG_MODULE(0)

int mmr_int::mmr_detect_first(struct mm_ring* mr, const struct mm_point* pt, uint32_t flags)
{
    int32_t stype = 0;
    size_t pkt_len = 0;
    const off_t pkt_start = ds_find_dgram(mr->buf, pt->len, &stype, &pkt_len, flags);
    if (pkt_start < 0) {
        tv_log(ll::error, "%s: no header (buflen=%zd); non-TS/RTP stream?\n", __func__, pt->len);
        return -EFAULT;
    }
    if (pkt_start > 0) {
        const auto skipped = static_cast<size_t>(pkt_start);
        tv_assert_logged(skipped < pt->len);
        // By design: the bytes ahead of the first unit stay in the payload. The reader's sync search drops them.
        tv_log(ll::warning, "%s: UNALIGNED data: TS starts at byte %zd, orig/adj_len: %zd/%zd bytes\n", __func__,
               skipped, pt->len, pt->len - skipped);
    }

    union n32_tag found = {};
    found.num = stype;
    if (mr->stype.num == 0) {
        mr->stype = found;
        tv_log(ll::info, "%s: %s stream detected\n", __func__, found.sym);
    } else if (mr->stype.num != found.num) {
        // A ring that was told what to expect keeps to it.
        tv_log(ll::warning, "%s: expected [%s], got [%s] stream\n", __func__, mr->stype.sym, found.sym);
    }

    tv_assert_logged(mr->pld_pos == -1 && pt->pos == 0);
    mr->pld_pos = pt->pos;
    mr->ts_len = pkt_len;
    tv_log(ll::info, "%s: [%s] TS pkt_len=%zu\n", __func__, mr->sname, mr->ts_len);
    return 0;
}
