// Under attack: what a reader of a ring log does with the record that another process left. The input is pld_start and
// pld_len, two bytes each (the highest value stands for the highest of the field), then the bytes of a ring of one page.
#include "fuzz/fuzz_common.h"
#include "lard.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <string>

namespace
{

const std::string NAME = "fuzz_lard." + std::to_string(getpid());
const size_t PAGE = static_cast<size_t>(sysconf(_SC_PAGESIZE));
constexpr size_t FIELD_SIZE = 2;

lard_t g_writer = nullptr;

void destroy_objects()
{
    lard_destroy(g_writer);
}

uint64_t field_of(std::span<const uint8_t> two)
{
    const unsigned v = two[0] | unsigned{two[1]} << 8;
    return v == 0xFFFF ? UINT64_MAX : v;
}

// Lays bytes over a place of one of the two objects.
void overwrite(const char* suffix, size_t offset, const void* bytes, size_t size)
{
    const int fd = shm_open(("/" + NAME + suffix).c_str(), O_RDWR, 0);
    FUZZ_CHECK(fd >= 0 && pwrite(fd, bytes, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size));
    close(fd);
}

void read_all(lard_t lh)
{
    struct lard_view view;
    if (lard_look(lh, &view) != 0) {
        FUZZ_CHECK(lard_snapshot(lh, -1) == -1);
        return;
    }
    FUZZ_CHECK(view.start < view.buflen && view.len <= view.buflen);
    const int fd = memfd_create("snapshot", 0);
    const ssize_t written = lard_snapshot(lh, fd);
    FUZZ_CHECK(written >= 0 && static_cast<size_t>(written) <= view.buflen);
    close(fd);

    struct lard_cursor cur = {};
    size_t total = 0;
    for (ssize_t n; (n = lard_read_new(lh, &cur, std::vector<char>(100).data(), 100, nullptr)) > 0;)
        total += static_cast<size_t>(n);
    FUZZ_CHECK(total <= view.len && total + 1 >= view.len);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (!g_writer) {
        g_writer = lard_create(NAME.c_str(), 1);
        FUZZ_CHECK(g_writer != nullptr);
        atexit(destroy_objects);
    }
    const std::span<const uint8_t> input(data, size);
    if (size < 2 * FIELD_SIZE) return 0;
    const uint64_t fields[] = {field_of(input.first(FIELD_SIZE)), field_of(input.subspan(FIELD_SIZE, FIELD_SIZE))};
    const std::span<const uint8_t> text = input.subspan(2 * FIELD_SIZE);
    overwrite(".meta", offsetof(lard_meta, pld_start), fields, sizeof(fields));
    overwrite(".dat", 0, text.data(), std::min(text.size(), PAGE));

    FUZZ_CHECK(lard_probe(NAME.c_str()) == 0);
    const lard_t lh = lard_open(NAME.c_str());
    FUZZ_CHECK(lh != nullptr);
    read_all(lh);
    lard_close(lh);
    return 0;
}
