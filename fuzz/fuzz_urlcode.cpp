// Under attack: percent-decoding and percent-encoding, and entities. The first byte chooses flags; the text behind it
// ends with its memory, without a zero of its own.
#include "fuzz/fuzz_common.h"
#include "uri.h"
#include "webops.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) return 0;
    const uint32_t flags = data[0] & 1u;
    const std::vector<char> text(data + 1, data + size);

    std::vector<char> decoded = text;
    const char* const got = uri_decode_opt(decoded.data(), decoded.size(), flags);
    FUZZ_CHECK(!got || decoded.empty() || memchr(decoded.data(), 0, decoded.size()));

    std::vector<char> encoded = text;
    FUZZ_CHECK(uri_encode(encoded.data(), encoded.size()) == encoded.data());
    FUZZ_CHECK(encoded.empty() || memchr(encoded.data(), 0, encoded.size()));

    // With room enough, what was encoded is decoded to itself, but for the percent sign, which encoding leaves.
    const std::string whole(text.begin(), std::find(text.begin(), text.end(), '\0'));
    if (whole.find('%') == std::string::npos) {
        std::vector<char> there(3 * whole.size() + 1);
        std::copy(whole.begin(), whole.end(), there.begin());
        FUZZ_CHECK(uri_encode(there.data(), there.size()) && uri_decode_opt(there.data(), there.size(), 0));
        FUZZ_CHECK(whole == there.data());
    }
    for (size_t room : {size_t{1}, size_t{9}, 6 * whole.size() + 1}) {
        std::vector<char> page(room);
        const int count = web_escape(whole.c_str(), page.data(), room);
        FUZZ_CHECK(count == -34 || count == web_escape(whole.c_str(), nullptr, 0));
        FUZZ_CHECK(memchr(page.data(), 0, room) && (count != -34 || room <= 6 * whole.size()));
    }
    return 0;
}
