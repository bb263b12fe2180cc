// Creating and destroying a ring with each inner call failing in turn.
//
// The program is linked with --wrap for the calls below: the library's calls end here first. Each is noted in
// g_calls, and fails if its turn is in g_fail.
#include "support/ring_kit.h"

#include <cerrno>
#include <map>

using namespace ringkit;

namespace
{

struct call {
    std::string what;
    void* addr;
    size_t len;
};

bool g_watching = false;
std::vector<call> g_calls;
std::map<std::string, int> g_turn;  // of each function, from 1
std::map<std::string, int> g_fail;  // function to the turn that fails
constexpr int INJECTED = EOVERFLOW; // an error that none of the calls gives by itself here

// Notes a call; true if it has to fail.
bool fails(const char* what, void* addr, size_t len)
{
    if (!g_watching) return false;
    g_watching = false; // noting must not be noted
    g_calls.push_back({what, addr, len});
    const auto it = g_fail.find(what);
    const bool yes = ++g_turn[what] == (it == g_fail.end() ? -1 : it->second);
    g_watching = true;
    if (yes) errno = INJECTED;
    return yes;
}

} // namespace

extern "C" {
void* __real_mmap(void* addr, size_t len, int prot, int flags, int fd, off_t offset);
int __real_munmap(void* addr, size_t len);
int __real_shm_open(const char* name, int flags, mode_t mode);
int __real_shm_unlink(const char* name);
int __real_ftruncate(int fd, off_t len);
int __real_close(int fd);
void* __real_calloc(size_t count, size_t size);

void* __wrap_mmap(void* addr, size_t len, int prot, int flags, int fd, off_t offset)
{
    return fails("mmap", addr, len) ? MAP_FAILED : __real_mmap(addr, len, prot, flags, fd, offset);
}
int __wrap_munmap(void* addr, size_t len)
{
    return fails("munmap", addr, len) ? -1 : __real_munmap(addr, len);
}
int __wrap_shm_open(const char* name, int flags, mode_t mode)
{
    return fails("shm_open", nullptr, 0) ? -1 : __real_shm_open(name, flags, mode);
}
int __wrap_shm_unlink(const char* name)
{
    return fails("shm_unlink", nullptr, 0) ? -1 : __real_shm_unlink(name);
}
int __wrap_ftruncate(int fd, off_t len)
{
    return fails("ftruncate", nullptr, static_cast<size_t>(len)) ? -1 : __real_ftruncate(fd, len);
}
int __wrap_close(int fd)
{
    return fails("close", nullptr, static_cast<size_t>(fd)) ? -1 : __real_close(fd);
}
void* __wrap_calloc(size_t count, size_t size)
{
    return fails("calloc", nullptr, count * size) ? nullptr : __real_calloc(count, size);
}
}

namespace
{

class mmr_faults : public ring_test
{
protected:
    void TearDown() override
    {
        g_watching = false;
        ring_test::TearDown();
    }

    void watch(std::map<std::string, int> fail)
    {
        g_calls.clear();
        g_turn.clear();
        g_fail = std::move(fail);
        log.clear();
        g_watching = true;
    }

    int create_failing(std::map<std::string, int> fail, size_t size = 4 * 4096)
    {
        watch(std::move(fail));
        const int rc = mmr_create(&ring, size);
        g_watching = false;
        return rc;
    }

    void destroy_failing(std::map<std::string, int> fail)
    {
        watch(std::move(fail));
        mmr_destroy(ring);
        g_watching = false;
        ring = nullptr;
    }

    // The names of the calls made, in order.
    static std::string calls()
    {
        std::string out;
        for (const call& c : g_calls)
            out += (out.empty() ? "" : " ") + c.what;
        return out;
    }
    static std::vector<call> calls_of(const std::string& what)
    {
        std::vector<call> out;
        for (const call& c : g_calls)
            if (c.what == what) out.push_back(c);
        return out;
    }

    // The name that the next ring gets.
    std::string next_name()
    {
        make(4096);
        unsigned pid = 0;
        int number = 0;
        EXPECT_EQ(sscanf(ring->sname, "/mmr.%u.%d", &pid, &number), 2);
        mmr_destroy(ring);
        ring = nullptr;
        return text("/mmr.%u.%d", pid, number + 1);
    }

    static std::string error_text() { return text("ERROR(%d): %s\n", INJECTED, strerror(INJECTED)); }
};

constexpr size_t SIZE = 4 * 4096;

} // namespace

// ---- creation -------------------------------------------------------------------------------------------------

TEST_F(mmr_faults, none_of_them_is_the_order_of_the_steps)
{
    EXPECT_EQ(create_failing({}), 0);
    EXPECT_EQ(calls(), "calloc shm_open ftruncate mmap mmap mmap");
    const std::vector<call> maps = calls_of("mmap");
    ASSERT_EQ(maps.size(), 3u);
    EXPECT_EQ(maps[0].addr, nullptr);
    EXPECT_EQ(maps[0].len, 2 * SIZE + PAGE);
    EXPECT_EQ(maps[1].addr, ring->buf + SIZE);
    EXPECT_EQ(maps[1].len, SIZE);
    EXPECT_EQ(maps[2].addr, ring->buf + 2 * SIZE);
    EXPECT_EQ(maps[2].len, PAGE);
}

TEST_F(mmr_faults, of_memory_for_the_handle_give_12_before_the_arguments_are_looked_at)
{
    EXPECT_EQ(create_failing({{"calloc", 1}}), 12);
    EXPECT_EQ(ring, nullptr);
    EXPECT_EQ(calls(), "calloc");
    EXPECT_EQ(log.count("(ERR)  mmr_create: calloc("), 1u) << log.text();
    EXPECT_EQ(create_failing({{"calloc", 1}}, 1023), 12);
    watch({{"calloc", 1}});
    EXPECT_EQ(mmr_create(nullptr, SIZE), 12);
}

// The name's number counts the attempts to take a name.
TEST_F(mmr_faults, of_memory_for_the_handle_take_no_number_and_others_do)
{
    const std::string object = next_name();
    EXPECT_EQ(create_failing({{"calloc", 1}}), 12);
    {
        const handle_is_kept no_leak;
        EXPECT_EQ(create_failing({{"shm_open", 1}}), 22);
    }
    EXPECT_TRUE(log.has("shm_open(" + object + ")")) << log.text();
    EXPECT_NE(next_name(), object);
}

TEST_F(mmr_faults, of_the_objects_opening_keep_the_handle_and_release_nothing)
{
    const std::string object = next_name();
    {
        const handle_is_kept no_leak;
        EXPECT_EQ(create_failing({{"shm_open", 1}}), 22);
    }
    EXPECT_EQ(ring, nullptr);
    EXPECT_EQ(calls(), "calloc shm_open");
    EXPECT_EQ(log.text(), "(ERR)  mmr_create: shm_open(" + object + ") " + error_text());
}

TEST_F(mmr_faults, of_the_objects_size_give_minus_1_and_release_the_object)
{
    const std::string object = next_name();
    EXPECT_EQ(create_failing({{"ftruncate", 1}}), -1);
    EXPECT_EQ(ring, nullptr);
    EXPECT_EQ(calls(), "calloc shm_open ftruncate close shm_unlink");
    EXPECT_EQ(calls_of("ftruncate")[0].len, 2 * SIZE + PAGE);
    EXPECT_FALSE(object_exists(object));
}

TEST_F(mmr_faults, of_the_span_release_the_object)
{
    const std::string object = next_name();
    const size_t fds = open_fds();
    EXPECT_EQ(create_failing({{"mmap", 1}}), 22);
    EXPECT_EQ(ring, nullptr);
    EXPECT_EQ(calls(), "calloc shm_open ftruncate mmap close shm_unlink");
    const auto fd = static_cast<int>(calls_of("close")[0].len);
    EXPECT_EQ(log.text(), text("(ERR)  mmr_create: mmap(NULL, %zu, .., fd%d, 0) ", SIZE, fd) + error_text());
    EXPECT_FALSE(object_exists(object));
    EXPECT_EQ(open_fds(), fds);
}

TEST_F(mmr_faults, of_the_mirror_release_the_one_whole_span)
{
    const std::string object = next_name();
    const size_t fds = open_fds();
    EXPECT_EQ(create_failing({{"mmap", 2}}), 22);
    EXPECT_EQ(ring, nullptr);
    EXPECT_EQ(calls(), "calloc shm_open ftruncate mmap mmap munmap close shm_unlink");
    void* mirror = calls_of("mmap")[1].addr;
    EXPECT_EQ(calls_of("munmap")[0].addr, static_cast<uint8_t*>(mirror) - SIZE);
    EXPECT_EQ(calls_of("munmap")[0].len, 2 * SIZE + PAGE);
    const auto fd = static_cast<int>(calls_of("close")[0].len);
    EXPECT_EQ(log.text(), text("(ERR)  mmr_create: mmap(%p, %zu, .., fd%d, 0) ", mirror, SIZE, fd) + error_text());
    EXPECT_FALSE(object_exists(object));
    EXPECT_EQ(open_fds(), fds);
}

TEST_F(mmr_faults, of_the_dead_zone_release_the_one_whole_span)
{
    const std::string object = next_name();
    const size_t fds = open_fds();
    EXPECT_EQ(create_failing({{"mmap", 3}}), 22);
    EXPECT_EQ(ring, nullptr);
    EXPECT_EQ(calls(), "calloc shm_open ftruncate mmap mmap mmap munmap close shm_unlink");
    void* zone = calls_of("mmap")[2].addr;
    EXPECT_EQ(calls_of("munmap")[0].addr, static_cast<uint8_t*>(zone) - 2 * SIZE);
    EXPECT_EQ(calls_of("munmap")[0].len, 2 * SIZE + PAGE);
    const auto fd = static_cast<int>(calls_of("close")[0].len);
    EXPECT_EQ(log.text(), text("(ERR)  mmr_create: DDZ mmap(%p, %zu, .., fd%d, 0) ", zone, PAGE, fd) + error_text());
    EXPECT_FALSE(object_exists(object));
    EXPECT_EQ(open_fds(), fds);
}

TEST_F(mmr_faults, of_one_ring_are_forgotten_by_the_next)
{
    for (const int turn : {1, 2, 3})
        EXPECT_EQ(create_failing({{"mmap", turn}}), 22);
    make(SIZE);
    EXPECT_EQ(put(ts_bytes(1880)), 0);
}

// ---- end ------------------------------------------------------------------------------------------------------

TEST_F(mmr_faults, none_of_them_is_the_order_of_the_end)
{
    make(SIZE);
    uint8_t* buf = ring->buf;
    destroy_failing({});
    EXPECT_EQ(calls(), "munmap munmap munmap close shm_unlink");
    const std::vector<call> unmaps = calls_of("munmap");
    EXPECT_EQ(unmaps[0].addr, buf + 2 * SIZE);
    EXPECT_EQ(unmaps[0].len, PAGE);
    EXPECT_EQ(unmaps[1].addr, buf + SIZE);
    EXPECT_EQ(unmaps[1].len, SIZE);
    // By design the whole span goes once more: a half-made ring has nothing but the span, and both end alike.
    EXPECT_EQ(unmaps[2].addr, buf);
    EXPECT_EQ(unmaps[2].len, 2 * SIZE + PAGE);
    EXPECT_EQ(log.text(), "");
}

TEST_F(mmr_faults, of_each_step_of_the_end_are_logged_and_the_rest_goes_on)
{
    struct row {
        const char* what;
        int turn;
    };
    const row table[] = {{"munmap", 1}, {"munmap", 2}, {"munmap", 3}, {"close", 1}, {"shm_unlink", 1}};
    for (const row& r : table) {
        SCOPED_TRACE(text("%s, turn %d", r.what, r.turn));
        make(SIZE);
        const std::string object = name();
        const int fd = ring->sfd;
        uint8_t* buf = ring->buf;
        destroy_failing({{r.what, r.turn}});
        EXPECT_EQ(calls(), "munmap munmap munmap close shm_unlink");
        const std::string lines[] = {
            text("(ERR)  mmr_destroy: DDZ [%s] munmap(%p, ..) ", object.c_str(), static_cast<void*>(buf + 2 * SIZE)),
            text("(ERR)  mmr_destroy: EXT [%s] munmap(%p, ..) ", object.c_str(), static_cast<void*>(buf + SIZE)),
            text("(ERR)  mmr_destroy: BUF [%s] munmap(%p, ..) ", object.c_str(), static_cast<void*>(buf)),
            text("(ERR)  mmr_destroy: close(fd%d) ", fd),
            text("(ERR)  mmr_destroy: shm_unlink(%s) ", object.c_str()),
        };
        EXPECT_EQ(log.text(), lines[static_cast<size_t>(&r - table)] + error_text());
        (void)__real_munmap(buf, 2 * SIZE + PAGE);
        if (std::string(r.what) == "close") (void)__real_close(fd);
        if (std::string(r.what) == "shm_unlink") (void)__real_shm_unlink(object.c_str());
        EXPECT_FALSE(object_exists(object));
    }
}
