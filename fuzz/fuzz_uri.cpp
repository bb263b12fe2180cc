// Under attack: uri_extract, uri_parse, the segment getters, path_parse, and what a front end makes of a URL or of a
// playlist with the item that its last line names. The input is a text, up to its first zero.
#include "fuzz/fuzz_common.h"
#include "uri.h"
#include "webops.h"

#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(data, std::find(data, data + size, 0));
    std::vector<char> mem(text.c_str(), text.c_str() + text.size() + 1); // ends with the text's zero

    char scheme[URI_SCHEME_MAX] = "", auth[URI_AUTH_MAX] = "", path[URI_PATH_MAX] = "", query[URI_QUERY_MAX] = "";
    const int kind = uri_extract(mem.data(), scheme, auth, path, query);
    FUZZ_CHECK(kind >= URI_BAD && kind <= URI_HLS);

    struct uri_layout layout = {};
    if (uri_parse(mem.data(), &layout) == 0) {
        FUZZ_CHECK(layout.s_len + layout.a_len + layout.p_len + layout.q_len <= text.size());
        for (size_t room : {size_t{1}, size_t{8}, text.size() + 1}) {
            std::vector<char> dst(room);
            for (auto get : {uri_get_scheme, uri_get_authority, uri_get_path, uri_get_query})
                FUZZ_CHECK(get(&layout, dst.data(), room) == nullptr || strlen(dst.data()) < room);
        }
    }
    for (size_t len : {text.size(), text.size() / 2}) {
        char addr[16] = "", port[6] = "";
        const char* tail = path_parse(mem.data(), len, addr, sizeof addr, port, sizeof port);
        FUZZ_CHECK(tail == nullptr || (tail >= mem.data() && tail <= mem.data() + text.size()));
        uri_path_addrport(mem.data(), len, nullptr, 0, nullptr, 0);
    }
    const std::string item = text.substr(text.rfind('\n') + 1);
    for (size_t room : {size_t{1}, size_t{16}, text.size() + item.size() + 8}) {
        std::vector<char> first(room), second(room);
        const int rc = web_parse_url(mem.data(), first.data(), second.data(), room);
        FUZZ_CHECK(rc == 0 || rc == -1 || rc == 34);
        FUZZ_CHECK(memchr(first.data(), 0, room) && memchr(second.data(), 0, room));
        const int joined = mk_hls_item_url(mem.data(), item.c_str(), first.data(), room);
        FUZZ_CHECK(joined == 22 || (joined == 0 && std::string(first.data()).ends_with(item)));
        const char* full = uri_ensure_schema("http://", mem.data(), second.data(), room);
        FUZZ_CHECK(full == mem.data() || (full ? text.size() + 7 == strlen(full) : text.size() + 7 >= room));
    }
    return 0;
}
