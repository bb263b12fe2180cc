// Under attack: the front end example's reading of a request head, and what it makes of a target. A name that comes of
// it stays beneath the root.
#include "examples/front_name.h"
#include "examples/front_request.h"
#include "fuzz/fuzz_common.h"

#include <cctype>
#include <cstring>
#include <initializer_list>

namespace
{

bool is_one_of(int status, std::initializer_list<int> statuses)
{
    return std::find(statuses.begin(), statuses.end(), status) != statuses.end();
}

bool is_control(char c)
{
    return iscntrl(static_cast<unsigned char>(c)) != 0;
}

void check_name(const char* target)
{
    struct front_name name;
    const int status = front_name_of(target, &name);
    FUZZ_CHECK(is_one_of(status, {0, 400, 403, 404, 414}));
    if (status != 0) return;
    const std::string path = name.path;
    FUZZ_CHECK(path.empty() == (name.kind == front_kind::ping || name.kind == front_kind::favicon));
    FUZZ_CHECK(!path.starts_with('/') && ("/" + path + "/").find("/../") == std::string::npos);
    FUZZ_CHECK(std::none_of(path.begin(), path.end(), is_control));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::vector<char> mem(data, data + size);
    struct front_request rq;
    const int status = front_read_request({mem.data(), size}, &rq);
    FUZZ_CHECK(is_one_of(status, {0, 400, 405, 413, 414, 501, 505}));
    if (status == 0) {
        FUZZ_CHECK(rq.target[0] != '\0' && std::none_of(rq.target, rq.target + strlen(rq.target), is_control));
        check_name(rq.target);
    }
    check_name(std::string(data, data + size).c_str());
    return 0;
}
