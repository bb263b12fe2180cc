// Under attack: queries, playlist URLs, request paths and ranges of stored time. The input is a text, up to its first
// zero.
#include "fuzz/fuzz_common.h"
#include "uri.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(data, std::find(data, data + size, 0));
    std::vector<char> mem(text.c_str(), text.c_str() + text.size() + 1); // ends with the text's zero

    skht_t tbl = nullptr;
    const int rc = uri_query_parse(mem.data(), &tbl);
    FUZZ_CHECK((tbl != nullptr) == (rc == 0 && !text.empty()));
    if (tbl) {
        FUZZ_CHECK(skht_validate(tbl) && skht_count(tbl) >= 1 && skht_count(tbl) <= 128);
        skht_destroy(tbl, free);
    }
    uri_query_parse(mem.data(), nullptr);

    char path[URI_PATH_MAX];
    struct hls_uri_info info = {};
    for (struct hls_uri_info* place : {&info, static_cast<struct hls_uri_info*>(nullptr)}) {
        const int kind = uri_m3u_extract(mem.data(), path, place);
        FUZZ_CHECK(kind == URI_HLS || kind == -1);
    }
    FUZZ_CHECK(memchr(info.ch_alias, 0, HLS_ALIAS_LEN) && memchr(info.pl_alias, 0, HLS_ALIAS_LEN));
    is_hls_url(mem.data());
    uri_pre_path(mem.data());

    for (size_t room : {size_t{1}, size_t{8}, size_t{128}}) {
        std::vector<char> src(room), dst(room), name(room), alias(2 * room);
        struct uri_parse_ctx ctx = {"/r", "", 0, 0};
        uri_extract_endpts_ext(mem.data(), src.data(), room, dst.data(), room, &ctx);
        uri_extract_endpts_ext(mem.data(), src.data(), room, dst.data(), room, nullptr);
        FUZZ_CHECK(memchr(src.data(), 0, room) && memchr(dst.data(), 0, room));
        FUZZ_CHECK(memchr(ctx.udpfx, 0, sizeof ctx.udpfx));
        const char* query = nullptr;
        FUZZ_CHECK(uri_split_alias(mem.data(), alias.data(), room, &query) == 0);
        url_get_fname(mem.data(), name.data(), room, true);
        FUZZ_CHECK(memchr(name.data(), 0, room));
    }
    return 0;
}
