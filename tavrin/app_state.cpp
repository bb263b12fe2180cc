// The run-time state seen from outside: its invariants, and its picture in words.

#include "log.h"
#include "tavrin/app_int.h"

#include <cstdlib>
#include <cstring>

TV_LOG_MODULE(app_int::log_module)

namespace app_int
{

void copy_text(char* dst, size_t dstlen, const char* src)
{
    const size_t n = strnlen(src, dstlen - 1);
    memcpy(dst, src, n);
    dst[n] = '\0';
}

const char* validate_ctx(const struct kvti_ctx* ctx, const struct process_ctx* feed)
{
    if ((ctx->abuf == nullptr) != (ctx->abuf_len == 0)) return "abuf and abuf_len go together";
    if (ctx->abuf != nullptr && feed->tail_size > ctx->abuf_len) return "the carry-over fits abuf";
    if (feed->tail_size != 0 && ctx->is_ready && ctx->abuf == nullptr) return "a carry-over has its buffer";
    if (feed->pkt_count != 0 && feed->info.ts_len == 0) return "packets are counted in a known stream only";
    if (!ctx->is_ready) return nullptr;
    if (ctx->ssock < 0) return "a ready context has its source";
    if (ctx->mmr == nullptr) return "a ready context has its ring";
    if (ctx->tc == nullptr) return "a ready context has its analyzer";
    if (ctx->uc.buf != nullptr) return "the ring's memory is lent for the opening only";
    if (ctx->mode.num != SM_PKT.num && ctx->mode.num != SM_STM.num) return "the mode is one of the two";
    return nullptr;
}

void dump_ctx(FILE* fp, const struct kvti_ctx* ctx, const struct process_ctx* feed)
{
    const char* broken = validate_ctx(ctx, feed);
    fprintf(fp, "run-time state: %s, source fd%d, mode [%.4s]\n", ctx->is_ready ? "ready" : "not ready", ctx->ssock,
            ctx->mode.sym);
    fprintf(fp, "\tring %p, analyzer %p, carry-over %zu of %zu bytes at %p\n", static_cast<void*>(ctx->mmr),
            static_cast<void*>(ctx->tc), feed->tail_size, ctx->abuf_len, static_cast<void*>(ctx->abuf));
    fprintf(fp, "\tstream unit %zu bytes, %zu packets fed, index %lu\n", feed->info.ts_len, feed->pkt_count,
            static_cast<unsigned long>(feed->pkt_idx));
    fprintf(fp, "\tsnapshot: %s%s, tail %zu bytes\n", ctx->waiting_alarm ? "timed " : "",
            ctx->must_count_tail ? "counted" : "", ctx->tail_size);
    fprintf(fp, "\tfile: loaded at %ld, changed at %ld\n", static_cast<long>(ctx->config_load_tm),
            static_cast<long>(ctx->config_mtime));
    fprintf(fp, "\tinvariants: %s\n", broken != nullptr ? broken : "hold");
}

#ifdef KVT_DEEP_CHECKS
void deep_check()
{
    if (validate_ctx(&g_ctx, feed_state()) == nullptr) return;
    dump_ctx(stderr, &g_ctx, feed_state());
    abort();
}
#endif

} // namespace app_int
