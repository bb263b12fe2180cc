// Ring logs with each inner call failing in turn.
//
// The program is linked with --wrap for the calls below: the library's calls end here first, and the one whose turn
// has come fails.
#include "lard.h"

#include "lib/lard_int.h"
#include "support/lard_kit.h"
#include "support/std_capture.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <regex>
#include <string>

namespace
{

std::map<std::string, int> g_turn; // of each function, from 1
std::string g_failing;             // the function that fails
int g_failing_turn = 0;
constexpr int INJECTED = EIO;

bool fails(const char* what)
{
    if (g_failing != what || ++g_turn[what] != g_failing_turn) return false;
    errno = INJECTED;
    return true;
}

} // namespace

extern "C" {
void* __real_mmap(void* addr, size_t len, int prot, int flags, int fd, off_t offset);
int __real_munmap(void* addr, size_t len);
int __real_shm_open(const char* name, int flags, mode_t mode);
int __real_shm_unlink(const char* name);
int __real_ftruncate(int fd, off_t len);
void* __real_calloc(size_t count, size_t size);

void* __wrap_mmap(void* addr, size_t len, int prot, int flags, int fd, off_t offset)
{
    return fails("mmap") ? MAP_FAILED : __real_mmap(addr, len, prot, flags, fd, offset);
}
int __wrap_munmap(void* addr, size_t len)
{
    return fails("munmap") ? -1 : __real_munmap(addr, len);
}
int __wrap_shm_open(const char* name, int flags, mode_t mode)
{
    return fails("shm_open") ? -1 : __real_shm_open(name, flags, mode);
}
int __wrap_shm_unlink(const char* name)
{
    return fails("shm_unlink") ? -1 : __real_shm_unlink(name);
}
int __wrap_ftruncate(int fd, off_t len)
{
    return fails("ftruncate") ? -1 : __real_ftruncate(fd, len);
}
void* __wrap_calloc(size_t count, size_t size)
{
    return fails("calloc") ? nullptr : __real_calloc(count, size);
}
}

namespace
{

const size_t PAGE = static_cast<size_t>(sysconf(_SC_PAGESIZE));

class lard_faults : public testing::Test
{
protected:
    void TearDown() override
    {
        fail_none();
        unlink(meta_path.c_str());
        unlink(data_path.c_str());
    }
    static void fail(const char* what, int turn)
    {
        g_turn.clear();
        g_failing = what;
        g_failing_turn = turn;
    }
    static void fail_none() { g_failing_turn = 0; }
    bool exists(const std::string& path) const { return access(path.c_str(), F_OK) == 0; }
    // What creating says when a call fails; "%fd" in place of the descriptor's number.
    std::string create_failing(const char* what, int turn)
    {
        const size_t held = lardkit::open_descriptors();
        lard_t lh = nullptr;
        fail(what, turn);
        const std::string said = stderr_of([&] {
            lh = lard_create(name.c_str(), 2);
            err = errno;
        });
        fail_none();
        EXPECT_EQ(lh, nullptr);
        EXPECT_EQ(lardkit::open_descriptors(), held);
        EXPECT_FALSE(exists(meta_path));
        EXPECT_FALSE(exists(data_path));
        return without_fd(said);
    }
    std::string open_failing(const char* what, int turn)
    {
        const size_t held = lardkit::open_descriptors();
        lard_t lh = nullptr;
        fail(what, turn);
        const std::string said = stderr_of([&] {
            lh = lard_open(name.c_str());
            err = errno;
        });
        fail_none();
        EXPECT_EQ(lh, nullptr);
        EXPECT_EQ(lardkit::open_descriptors(), held);
        EXPECT_TRUE(exists(meta_path) && exists(data_path));
        return without_fd(said);
    }
    static std::string without_fd(const std::string& said)
    {
        // Not any "fd": the address of a mapping may have one, too.
        return std::regex_replace(said, std::regex("([ (])fd[0-9]+"), "$1%fd");
    }

    const std::string name = "lard_fault_test." + std::to_string(getpid());
    const std::string meta_path = "/dev/shm/" + name + ".meta", data_path = "/dev/shm/" + name + ".dat";
    const std::string bad_end = "ERROR(5): Input/output error\n";
    int err = 0;
};

TEST_F(lard_faults, an_object_that_can_not_be_made_is_told_and_nothing_stays)
{
    EXPECT_EQ(create_failing("shm_open", 1), "lard_create: shm_open(/" + name + ".meta) " + bad_end);
    EXPECT_EQ(err, INJECTED);
    EXPECT_EQ(create_failing("shm_open", 2), "lard_create: shm_open(/" + name + ".dat) " + bad_end);
    EXPECT_EQ(err, INJECTED);
}

TEST_F(lard_faults, an_object_that_can_not_be_sized_is_told_and_nothing_stays)
{
    EXPECT_EQ(create_failing("ftruncate", 1), "lard_create: ftruncate(%fd/" + ("/" + name) + ".meta, 328) " + bad_end);
    EXPECT_EQ(create_failing("ftruncate", 2),
              "lard_create: ftruncate(%fd/" + ("/" + name) + ".dat, " + std::to_string(5 * PAGE) + ") " + bad_end);
    EXPECT_EQ(err, INJECTED);
}

TEST_F(lard_faults, memory_that_can_not_be_mapped_is_told_and_nothing_stays)
{
    const std::string ring = std::to_string(2 * PAGE), all = std::to_string(5 * PAGE);
    EXPECT_EQ(create_failing("mmap", 1), "lard_create: mmap(NULL, 328, .., %fd, 0) " + bad_end);
    EXPECT_EQ(create_failing("mmap", 2), "lard_create: BUF mmap(NULL, " + all + ", .., %fd, 0) " + bad_end);
    EXPECT_EQ(create_failing("mmap", 3), "lard_create: EXT mmap(NULL, " + ring + ", .., %fd, 0) " + bad_end);
    const std::string said = create_failing("mmap", 4);
    EXPECT_EQ(said.substr(0, 25), "lard_create: DDZ mmap(0x7");
    EXPECT_EQ(said.substr(said.find(',')), ", " + std::to_string(PAGE) + ", .., %fd, 0) " + bad_end);
    EXPECT_EQ(err, INJECTED);
}

TEST_F(lard_faults, no_memory_for_the_handle_is_told_by_errno_alone)
{
    EXPECT_EQ(create_failing("calloc", 1), "");
    EXPECT_EQ(err, ENOMEM);
    lard_t lh = lard_create(name.c_str(), 2);
    ASSERT_NE(lh, nullptr);
    EXPECT_EQ(open_failing("calloc", 1), "");
    EXPECT_EQ(err, ENOMEM);
    lard_destroy(lh);
}

TEST_F(lard_faults, a_reader_tells_what_it_can_not_have)
{
    lard_t lh = lard_create(name.c_str(), 2);
    ASSERT_NE(lh, nullptr);
    EXPECT_EQ(open_failing("shm_open", 1), "lard_open: shm_open(/" + name + ".meta) " + bad_end);
    EXPECT_EQ(open_failing("shm_open", 2), "lard_open: shm_open(/" + name + ".dat) " + bad_end);
    EXPECT_EQ(open_failing("mmap", 1), "lard_open: mmap(NULL, 328, .., %fd, 0) " + bad_end);
    EXPECT_EQ(open_failing("mmap", 2),
              "lard_open: BUF mmap(NULL, " + std::to_string(2 * PAGE) + ", .., %fd, 0) " + bad_end);
    EXPECT_EQ(err, INJECTED);
    lard_destroy(lh);
}

TEST_F(lard_faults, an_old_object_that_can_not_be_unlinked_is_told)
{
    lard_t old = lard_create(name.c_str(), 2);
    ASSERT_NE(old, nullptr);
    lard_close(old);
    lard_t lh = nullptr;
    fail("shm_unlink", 1);
    EXPECT_EQ(stderr_of([&] { lh = lard_create(name.c_str(), 2); }), "shm_unlink (META): Input/output error\n"
                                                                     "lard_create: shm_open(/" +
                                                                         name + ".meta) ERROR(17): File exists\n");
    EXPECT_EQ(lh, nullptr);
    EXPECT_TRUE(exists(meta_path)); // it is not this call's

    old = lard_create(name.c_str(), 2);
    ASSERT_NE(old, nullptr);
    lard_close(old);
    fail("shm_unlink", 2);
    EXPECT_EQ(stderr_of([&] { lh = lard_create(name.c_str(), 2); }), "shm_unlink (DATA): Input/output error\n"
                                                                     "lard_create: shm_open(/" +
                                                                         name + ".dat) ERROR(17): File exists\n");
    EXPECT_EQ(lh, nullptr);
    EXPECT_FALSE(exists(meta_path)); // made by this call, and undone
    EXPECT_TRUE(exists(data_path));
}

TEST_F(lard_faults, objects_that_can_not_be_unlinked_are_told)
{
    for (const int turn : {1, 2}) {
        lard_t lh = lard_create(name.c_str(), 2);
        ASSERT_NE(lh, nullptr);
        fail("shm_unlink", turn);
        EXPECT_EQ(stderr_of([&] { lard_destroy(lh); }),
                  turn == 1 ? "shm_unlink (META): Input/output error\n" : "shm_unlink (DATA): Input/output error\n");
        fail_none();
        EXPECT_EQ(exists(meta_path), turn == 1);
        EXPECT_EQ(exists(data_path), turn == 2);
    }
}

TEST_F(lard_faults, memory_that_can_not_be_released_is_an_assertion)
{
    lard_t lh = lard_create(name.c_str(), 2);
    ASSERT_NE(lh, nullptr);
    const char* const lines[] = {"munmap\\(META\\)", "munmap\\(DZ\\)", "munmap\\(OVL\\)", "munmap\\(ALL\\)"};
    for (int turn = 1; turn <= 4; ++turn) {
        fail("munmap", turn);
        EXPECT_DEATH(lard_close(lh), std::string(lines[turn - 1]) + ": Input/output error\n.*Assertion");
        fail_none();
    }
    lard_destroy(lh);
}

} // namespace
