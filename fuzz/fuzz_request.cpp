// Under attack: the reading of a request head, and the handling of its target. The request ends with its memory.
#include "fuzz/fuzz_common.h"
#include "webops.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<char> mem(data, data + size);
    struct http_header hdr;
    char url[64];
    const int rc = parse_http_header(mem.data(), size, &hdr, url, sizeof url);
    FUZZ_CHECK(rc == 0 || rc == -1 || rc == 22);
    FUZZ_CHECK(hdr.uri.p_len + hdr.uri.q_len + hdr.uri.a_len + hdr.uri.s_len <= size);
    FUZZ_CHECK(memchr(hdr.host, 0, sizeof hdr.host) && memchr(hdr.user_agent, 0, sizeof hdr.user_agent));
    FUZZ_CHECK(memchr(hdr.accept_enc, 0, sizeof hdr.accept_enc) && !(hdr.is_keep_alive && hdr.is_close));
    FUZZ_CHECK(size == 0 || memcmp(mem.data(), data, size) == 0);
    extract_num_hdr("Content-Length:", mem.data(), size);

    for (size_t room : {size_t{1}, size_t{16}, size_t{600}}) {
        std::vector<char> first(room), second(room);
        extract_http_request_path_query(mem.data(), size, first.data(), room, second.data(), room);
        FUZZ_CHECK(memchr(first.data(), 0, room) && memchr(second.data(), 0, room));
        if (rc == 0) mk_full_url(&hdr, first.data(), room);

        std::vector<char> request(data, data + size);
        const int served = web_parse_urq(request.data(), size, first.data(), second.data(), room, nullptr);
        FUZZ_CHECK(rc == 0 || served == rc);
        FUZZ_CHECK(memchr(first.data(), 0, room) && memchr(second.data(), 0, room));
    }
    return 0;
}
