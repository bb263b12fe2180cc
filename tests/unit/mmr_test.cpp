// The ring's memory and its writer.
#include "support/ring_kit.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <limits>

using namespace ringkit;

namespace
{

// A resource limit for the length of a test.
class limit_guard
{
public:
    limit_guard(__rlimit_resource what, rlim_t value) : what_(what)
    {
        EXPECT_EQ(getrlimit(what, &old_), 0);
        const struct rlimit tight = {value, old_.rlim_max};
        EXPECT_EQ(setrlimit(what, &tight), 0);
    }
    ~limit_guard() { EXPECT_EQ(setrlimit(what_, &old_), 0); }
    limit_guard(const limit_guard&) = delete;
    limit_guard& operator=(const limit_guard&) = delete;

private:
    __rlimit_resource what_;
    struct rlimit old_ = {};
};

// The name that the process's next ring gets: rings are made one after the other, so the last number is known.
std::string next_name()
{
    mmr_t probe = nullptr;
    EXPECT_EQ(mmr_create(&probe, PAGE), 0);
    unsigned pid = 0;
    int number = 0;
    EXPECT_EQ(sscanf(probe->sname, "/mmr.%u.%d", &pid, &number), 2);
    mmr_destroy(probe);
    return text("/mmr.%u.%d", pid, number + 1);
}

bool resident(const uint8_t* addr, size_t len)
{
    std::vector<unsigned char> pages((len + PAGE - 1) / PAGE);
    if (mincore(const_cast<uint8_t*>(addr), len, pages.data()) != 0) return false;
    return std::all_of(pages.begin(), pages.end(), [](unsigned char p) { return (p & 1) != 0; });
}

bool mapped(const uint8_t* addr, size_t len)
{
    std::vector<unsigned char> pages((len + PAGE - 1) / PAGE);
    return mincore(const_cast<uint8_t*>(addr), len, pages.data()) == 0;
}

} // namespace

// The tests hold an mmr_t as everybody does, and look into the record where only the record can tell.

// ---- creation -------------------------------------------------------------------------------------------------

using mmr_create_ = ring_test;

TEST_F(mmr_create_, gives_an_empty_ring_that_knows_no_stream)
{
    make(MIB);
    EXPECT_TRUE(ring->is_ready);
    EXPECT_EQ(ring->pld_pos, -1);
    const struct mm_info got = info();
    EXPECT_EQ(got.pld_size, 0u);
    EXPECT_EQ(got.stype.num, 0);
    EXPECT_EQ(got.ts_len, 0u);
    EXPECT_EQ(got.first_pktnum, 0u);
    EXPECT_EQ(got.last_pktnum, 0u);
    EXPECT_FALSE(ring->using_pktnums);
    struct mm_opt opt = {.no_mtu_pack = true};
    mmr_get_opt(ring, &opt);
    EXPECT_FALSE(opt.no_mtu_pack);
}

TEST_F(mmr_create_, says_at_debug_that_it_is_done)
{
    make(PAGE);
    EXPECT_EQ(log.text(), "(DBG)  mmr_create: " + name() + " OK\n");
}

TEST_F(mmr_create_, lays_out_buffer_mirror_and_dead_zone_without_gaps)
{
    make(MIB);
    EXPECT_EQ(ring->buflen, MIB);
    EXPECT_EQ(ring->ext, ring->buf + MIB);
    EXPECT_EQ(ring->ddz, ring->buf + 2 * MIB);
    EXPECT_EQ(ring->ddz_len, PAGE);
    EXPECT_EQ(ring->mm_len, 2 * MIB + PAGE);
    struct stat st = {};
    ASSERT_EQ(fstat(ring->sfd, &st), 0);
    EXPECT_EQ(static_cast<size_t>(st.st_size), 2 * MIB + PAGE);
    if (PAGE == 4096) {
        EXPECT_EQ(st.st_size, 2101248);
    }
}

TEST_F(mmr_create_, keeps_other_users_out_of_the_object)
{
    make(PAGE);
    struct stat st = {};
    ASSERT_EQ(fstat(ring->sfd, &st), 0);
    EXPECT_EQ(st.st_mode & 07777u, 0600u);
}

TEST_F(mmr_create_, shows_each_byte_twice)
{
    make(4 * PAGE);
    for (const size_t k : {size_t{0}, size_t{1}, PAGE - 1, PAGE, 3 * PAGE + 17, 4 * PAGE - 1}) {
        ring->buf[4 * PAGE + k] = static_cast<uint8_t>(k + 3);
        EXPECT_EQ(ring->buf[k], static_cast<uint8_t>(k + 3)) << k;
        ring->buf[k] = static_cast<uint8_t>(k + 5);
        EXPECT_EQ(ring->buf[4 * PAGE + k], static_cast<uint8_t>(k + 5)) << k;
    }
}

TEST_F(mmr_create_, makes_the_dead_zone_fault_at_its_first_byte)
{
    make(2 * PAGE);
    uint8_t* behind = ring->buf + 4 * PAGE;
    EXPECT_TRUE(readable(behind - 1));
    EXPECT_TRUE(writable(behind - 1));
    EXPECT_FALSE(readable(behind));
    EXPECT_FALSE(writable(behind));
    EXPECT_FALSE(readable(behind + PAGE - 1));
}

TEST_F(mmr_create_, lets_a_run_away_write_end_the_process)
{
    make(PAGE);
    EXPECT_DEATH(memset(ring->buf + PAGE, 1, PAGE + 1), "");
}

TEST_F(mmr_create_, populates_all_pages)
{
    make(64 * PAGE);
    EXPECT_TRUE(resident(ring->buf, 128 * PAGE));
}

TEST_F(mmr_create_, names_rings_of_a_process_by_a_running_number)
{
    make(PAGE);
    mmr_t second = nullptr;
    ASSERT_EQ(mmr_create(&second, PAGE), 0);
    unsigned pid[2] = {};
    int number[2] = {};
    EXPECT_EQ(sscanf(ring->sname, "/mmr.%u.%d", &pid[0], &number[0]), 2);
    EXPECT_EQ(sscanf(second->sname, "/mmr.%u.%d", &pid[1], &number[1]), 2);
    EXPECT_EQ(pid[0], static_cast<unsigned>(getpid()));
    EXPECT_EQ(pid[1], pid[0]);
    EXPECT_EQ(number[1], number[0] + 1);
    mmr_destroy(second);
}

TEST_F(mmr_create_, begins_the_numbers_of_a_process_at_1)
{
    // The threadsafe style starts the program anew: the statement runs in a process that has made no ring yet.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            make(PAGE);
            const bool right = name() == text("/mmr.%u.1", static_cast<unsigned>(getpid()));
            mmr_destroy(ring);
            _exit(right ? 7 : 8);
        },
        ::testing::ExitedWithCode(7), "");
}

TEST_F(mmr_create_, takes_one_page_as_the_smallest_size)
{
    make(PAGE);
    struct mm_point pt = {};
    EXPECT_EQ(mmr_iget(ring, &pt), ring->buf);
    EXPECT_EQ(pt.len, PAGE);
}

TEST_F(mmr_create_, refuses_a_size_that_is_no_multiple_of_the_page_by_a_logged_assertion)
{
    EXPECT_DEATH((void)mmr_create(&ring, 1024), "bufsz % SYS_PAGE_SIZE == 0");
    EXPECT_DEATH((void)mmr_create(&ring, PAGE + 1), "bufsz % SYS_PAGE_SIZE == 0");
    EXPECT_DEATH((void)mmr_create(&ring, 2 * PAGE - 1), "bufsz % SYS_PAGE_SIZE == 0");
}

TEST_F(mmr_create_, refuses_fewer_than_1024_bytes_by_a_logged_assertion)
{
    EXPECT_DEATH((void)mmr_create(&ring, 1023), "bufsz >= MIN_RING_SIZE");
    EXPECT_DEATH((void)mmr_create(&ring, 0), "bufsz >= MIN_RING_SIZE");
}

TEST_F(mmr_create_, refuses_a_null_place_for_the_handle_by_a_logged_assertion)
{
    EXPECT_DEATH((void)mmr_create(nullptr, PAGE), "pring && ");
}

TEST_F(mmr_create_, logs_the_call_stack_before_an_assertion_ends_the_process)
{
    EXPECT_DEATH(
        {
            log_default(&g_log, stderr);
            (void)mmr_create(&ring, 1024);
        },
        "ASSERT at:");
}

// ---- creation that fails --------------------------------------------------------------------------------------

TEST_F(mmr_create_, fails_when_its_name_is_taken_and_leaves_the_other_object_alone)
{
    const std::string taken = next_name();
    const int fd = shm_open(taken.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(fd, 0);
    log.clear();
    {
        const handle_is_kept no_leak;
        EXPECT_EQ(mmr_create(&ring, PAGE), EINVAL);
    }
    EXPECT_EQ(ring, nullptr);
    EXPECT_EQ(log.text(),
              text("(ERR)  mmr_create: shm_open(%s) ERROR(%d): %s\n", taken.c_str(), EEXIST, strerror(EEXIST)));
    EXPECT_TRUE(object_exists(taken));
    close(fd);
    shm_unlink(taken.c_str());

    make(PAGE); // the next number is free
}

TEST_F(mmr_create_, fails_when_there_is_no_descriptor_left)
{
    const std::string expected = next_name();
    log.clear();
    {
        const handle_is_kept no_leak;
        const limit_guard none(RLIMIT_NOFILE, 0);
        EXPECT_EQ(mmr_create(&ring, PAGE), EINVAL);
    }
    EXPECT_EQ(ring, nullptr);
    EXPECT_EQ(log.text(),
              text("(ERR)  mmr_create: shm_open(%s) ERROR(%d): %s\n", expected.c_str(), EMFILE, strerror(EMFILE)));
}

TEST_F(mmr_create_, gives_minus_one_when_the_object_cannot_have_its_size)
{
    const std::string expected = next_name();
    const size_t fds = open_fds();
    log.clear();
    (void)signal(SIGXFSZ, SIG_IGN);
    {
        const limit_guard small(RLIMIT_FSIZE, 2 * PAGE);
        EXPECT_EQ(mmr_create(&ring, PAGE), -1);
    }
    EXPECT_EQ(ring, nullptr);
    EXPECT_TRUE(log.has(text(", %zu) ERROR(%d): %s\n", 3 * PAGE, EFBIG, strerror(EFBIG)))) << log.text();
    EXPECT_EQ(log.count("(ERR)  mmr_create: ftruncate("), 1u) << log.text();
    EXPECT_FALSE(object_exists(expected));
    EXPECT_EQ(open_fds(), fds);
}

TEST_F(mmr_create_, fails_when_there_is_no_address_space)
{
    const std::string expected = next_name();
    const size_t fds = open_fds();
    log.clear();
    unsigned long vm_pages = 0;
    FILE* statm = fopen("/proc/self/statm", "r");
    ASSERT_TRUE(statm);
    ASSERT_EQ(fscanf(statm, "%lu", &vm_pages), 1);
    (void)fclose(statm);
    {
        const limit_guard tight(RLIMIT_AS, vm_pages * PAGE + 32 * MIB);
        EXPECT_EQ(mmr_create(&ring, 64 * MIB), EINVAL);
    }
    EXPECT_EQ(ring, nullptr);
    EXPECT_EQ(log.count(text("(ERR)  mmr_create: mmap(NULL, %zu, .., fd", 64 * MIB)), 1u) << log.text();
    EXPECT_TRUE(log.has(text(", 0) ERROR(%d): %s\n", ENOMEM, strerror(ENOMEM)))) << log.text();
    EXPECT_FALSE(object_exists(expected));
    EXPECT_EQ(open_fds(), fds);
}

// ---- end ------------------------------------------------------------------------------------------------------

using mmr_destroy_ = ring_test;

TEST_F(mmr_destroy_, unlinks_the_object_that_was_there_all_the_time)
{
    make(PAGE);
    const std::string object = name();
    EXPECT_TRUE(object_exists(object));
    mmr_destroy(ring);
    ring = nullptr;
    EXPECT_FALSE(object_exists(object));
}

TEST_F(mmr_destroy_, gives_back_memory_and_descriptor_without_a_word)
{
    const size_t fds = open_fds();
    make(4 * PAGE);
    const uint8_t* start = ring->buf;
    EXPECT_EQ(open_fds(), fds + 1);
    log.clear();
    mmr_destroy(ring);
    ring = nullptr;
    EXPECT_EQ(open_fds(), fds);
    for (size_t page = 0; page <= 8; ++page)
        EXPECT_FALSE(mapped(start + page * PAGE, PAGE)) << page;
    EXPECT_EQ(log.text(), "");
}

TEST_F(mmr_destroy_, takes_descriptor_0_for_none)
{
    // Whoever starts the program with standard input closed gets a ring on descriptor 0; it stays open to the end.
    const int saved = dup(0);
    close(0);
    make(PAGE);
    ASSERT_EQ(ring->sfd, 0);
    const std::string object = name();
    mmr_destroy(ring);
    ring = nullptr;
    EXPECT_NE(fcntl(0, F_GETFD), -1);
    EXPECT_FALSE(object_exists(object));
    close(0);
    if (saved >= 0) {
        EXPECT_EQ(dup2(saved, 0), 0);
        close(saved);
    }
}

// ---- writer ---------------------------------------------------------------------------------------------------

using mmr_writer = ring_test;

TEST_F(mmr_writer, is_offered_all_of_a_new_ring)
{
    make(MIB);
    struct mm_point pt = {77, 77};
    EXPECT_EQ(mmr_iget(ring, &pt), ring->buf);
    EXPECT_EQ(pt.pos, 0);
    EXPECT_EQ(pt.len, MIB);
}

TEST_F(mmr_writer, is_offered_one_run_across_the_end)
{
    make_standing(MIB, 1000000, ts_bytes(40000, 1000000));
    struct mm_point pt = {};
    EXPECT_EQ(mmr_iget(ring, &pt), ring->buf + 1040000);
    EXPECT_EQ(pt.pos, 1040000);
    EXPECT_EQ(pt.len, 1008576u);

    ASSERT_EQ(put(ts_bytes(100000, 1040000)), 0);
    EXPECT_EQ(payload_size(), 140000u);
    EXPECT_EQ(ring->pld_pos, 1000000);
    EXPECT_EQ(payload(), ts_bytes(140000, 1000000));
    EXPECT_EQ(bytes(ring->buf, ring->buf + 91424), ts_bytes(91424, MIB));
}

TEST_F(mmr_writer, stands_behind_a_payload_that_has_wrapped)
{
    make_standing(MIB, 1000000, ts_bytes(60000, 1000000));
    struct mm_point pt = {};
    EXPECT_EQ(mmr_iget(ring, &pt), ring->buf + 11424);
    EXPECT_EQ(pt.pos, 11424);
    EXPECT_EQ(pt.len, 988576u);
}

TEST_F(mmr_writer, gets_position_0_when_it_stands_exactly_at_the_end)
{
    make_standing(2 * PAGE, 2000, ts_bytes(2 * PAGE - 2000, 2000));
    struct mm_point pt = {};
    EXPECT_EQ(mmr_iget(ring, &pt), ring->buf);
    EXPECT_EQ(pt.pos, 0);
    EXPECT_EQ(pt.len, 2000u);
}

TEST_F(mmr_writer, fills_the_whole_room_by_one_read_that_begins_1_byte_before_the_end)
{
    make_standing(2 * PAGE, 2000, ts_bytes(2 * PAGE - 2001, 2000));
    struct mm_point pt = {};
    uint8_t* dest = mmr_iget(ring, &pt);
    ASSERT_EQ(dest, ring->buf + 2 * PAGE - 1);
    ASSERT_EQ(pt.len, 2001u);

    int fd[2];
    ASSERT_EQ(pipe(fd), 0);
    const bytes data = ts_bytes(2001, 2 * PAGE - 1);
    ASSERT_EQ(write(fd[1], data.data(), data.size()), 2001);
    EXPECT_EQ(read(fd[0], dest, pt.len), 2001);
    close(fd[0]);
    close(fd[1]);
    EXPECT_EQ(mmr_iput(ring, &pt), 0);
    EXPECT_EQ(payload(), ts_bytes(2 * PAGE, 2000));
}

TEST_F(mmr_writer, is_offered_nothing_by_a_full_ring)
{
    make(2 * PAGE);
    ASSERT_EQ(put(ts_bytes(2 * PAGE)), 0);
    EXPECT_EQ(payload_size(), 2 * PAGE);
    struct mm_point pt = {77, 78};
    EXPECT_EQ(mmr_iget(ring, &pt), nullptr);
    EXPECT_EQ(pt.pos, 77);
    EXPECT_EQ(pt.len, 78u);
}

TEST_F(mmr_writer, is_offered_the_last_byte_of_an_almost_full_ring)
{
    make(2 * PAGE);
    ASSERT_EQ(put(ts_bytes(2 * PAGE - 1)), 0);
    struct mm_point pt = {};
    EXPECT_EQ(mmr_iget(ring, &pt), ring->buf + 2 * PAGE - 1);
    EXPECT_EQ(pt.len, 1u);
    EXPECT_EQ(mmr_iput(ring, &pt), 0);
    EXPECT_EQ(payload_size(), 2 * PAGE);
}

TEST_F(mmr_writer, may_ask_again_as_nothing_changes_until_the_bytes_are_counted)
{
    make_standing(2 * PAGE, 2000, ts_bytes(500, 2000));
    const std::string before = state();
    struct mm_point first = {}, second = {};
    EXPECT_EQ(mmr_iget(ring, &first), mmr_iget(ring, &second));
    EXPECT_EQ(first.pos, second.pos);
    EXPECT_EQ(first.len, second.len);
    EXPECT_EQ(state(), before);
}

TEST_F(mmr_writer, stays_below_the_end_when_the_head_stands_at_it)
{
    make_standing(2 * PAGE, 2000, ts_bytes(2 * PAGE - 1900, 2000));
    take(2 * PAGE - 2000);
    ASSERT_EQ(ring->pld_pos, static_cast<off_t>(2 * PAGE));
    struct mm_point pt = {};
    EXPECT_EQ(mmr_iget(ring, &pt), ring->buf + 100);
    EXPECT_EQ(pt.pos, 100);
    EXPECT_EQ(payload(), ts_bytes(100, 2 * PAGE));
}

TEST_F(mmr_writer, may_count_a_read_of_no_bytes)
{
    make_standing(2 * PAGE, 2000, ts_bytes(500, 2000));
    EXPECT_EQ(put({}), 0);
    EXPECT_EQ(payload_size(), 500u);
}

TEST_F(mmr_writer, declaring_more_than_the_room_fails_a_logged_assertion)
{
    make_standing(2 * PAGE, 2000, ts_bytes(500, 2000));
    struct mm_point pt = {};
    ASSERT_TRUE(mmr_iget(ring, &pt));
    ++pt.len;
    EXPECT_DEATH((void)mmr_iput(ring, &pt), "pt->len <= mr->buflen - mr->pld_size");
    pt.len = std::numeric_limits<size_t>::max();
    EXPECT_DEATH((void)mmr_iput(ring, &pt), "pt->len <= mr->buflen - mr->pld_size");
}

TEST_F(mmr_writer, position_out_of_range_fails_a_logged_assertion)
{
    make_standing(2 * PAGE, 2000, ts_bytes(500, 2000));
    ring->pld_pos = static_cast<off_t>(4 * PAGE);
    struct mm_point pt = {};
    EXPECT_DEATH((void)mmr_iget(ring, &pt), "pt->pos < buflen|mmr_validate"); // deep checks see it first
    ring->pld_pos = 2000;
}

TEST_F(mmr_writer, says_which_input_is_exactly_one_datagram)
{
    // Padding hides where the packet ends; only knowing that the bytes are one datagram tells its length.
    const bytes padded = tsb::rtp(std::vector<tsb::packet>(7, tsb::pkt().pid(101))).padding(60);
    make(2 * PAGE);
    EXPECT_EQ(put(padded), -EFAULT);
    mmr_destroy(ring);

    make(2 * PAGE);
    struct mm_point pt = {};
    uint8_t* dest = mmr_iget(ring, &pt);
    std::copy(padded.begin(), padded.end(), dest);
    pt.len = padded.size();
    EXPECT_EQ(mmr_iput_ex(ring, &pt, true), 0);
    EXPECT_EQ(info().ts_len, padded.size());
}

// ---- options and verbosity ------------------------------------------------------------------------------------

using mmr_settings = ring_test;

TEST_F(mmr_settings, are_copied_in_and_out)
{
    make(PAGE);
    struct mm_opt opt = {.no_mtu_pack = true};
    mmr_set_opt(ring, &opt);
    opt.no_mtu_pack = false;
    mmr_get_opt(ring, &opt);
    EXPECT_TRUE(opt.no_mtu_pack);
    opt.no_mtu_pack = false;
    mmr_set_opt(ring, &opt);
    opt.no_mtu_pack = true;
    mmr_get_opt(ring, &opt);
    EXPECT_FALSE(opt.no_mtu_pack);
}

TEST_F(mmr_settings, begin_without_verbosity_and_keep_what_is_set)
{
    EXPECT_EQ(mmr_int::g_verbosity, 0u);
    mmr_set_verbosity(MMR_CAP_VERBOSE | MMR_OPUT_VERBOSE);
    EXPECT_EQ(mmr_int::g_verbosity, 5u);
    mmr_set_verbosity(0);
    EXPECT_EQ(mmr_int::g_verbosity, 0u);
    EXPECT_EQ(MMR_CAP_VERBOSE, 1u);
    EXPECT_EQ(MMR_OGET_VERBOSE, 2u);
    EXPECT_EQ(MMR_OPUT_VERBOSE, 4u);
}

// ---- debugging aids -------------------------------------------------------------------------------------------

using mmr_validate_ = ring_test;

TEST_F(mmr_validate_, accepts_rings_in_both_states_and_at_their_limits)
{
    make(2 * PAGE);
    EXPECT_TRUE(mmr_validate(ring));
    EXPECT_EQ(put(bytes(100)), -EFAULT);
    EXPECT_TRUE(mmr_validate(ring)) << "a refused input is counted";
    mmr_destroy(ring);

    make_standing(2 * PAGE, 2000, ts_bytes(2 * PAGE, 2000));
    EXPECT_TRUE(mmr_validate(ring));
    take(2 * PAGE - 2000);
    ASSERT_EQ(ring->pld_pos, static_cast<off_t>(2 * PAGE));
    EXPECT_TRUE(mmr_validate(ring));
}

TEST_F(mmr_validate_, objects_to_each_field_that_is_wrong)
{
    make_standing(2 * PAGE, 2000, ts_bytes(500, 2000));
    struct damage {
        const char* what;
        void (*do_it)(struct mm_ring* r);
    };
    const damage table[] = {
        {"is_ready", [](struct mm_ring* r) { r->is_ready = false; }},
        {"buf", [](struct mm_ring* r) { r->buf = nullptr; }},
        {"buflen", [](struct mm_ring* r) { r->buflen += 1; }},
        {"buflen too small", [](struct mm_ring* r) { r->buflen = 1023; }},
        {"mm_len", [](struct mm_ring* r) { r->mm_len -= 1; }},
        {"stype", [](struct mm_ring* r) { r->stype.num = 0; }},
        {"ts_len", [](struct mm_ring* r) { r->ts_len = 0; }},
        {"sfd", [](struct mm_ring* r) { r->sfd = -1; }},
        {"sname", [](struct mm_ring* r) { r->sname[0] = '\0'; }},
        {"sname without end", [](struct mm_ring* r) { memset(r->sname, '/', sizeof(r->sname)); }},
        {"ext", [](struct mm_ring* r) { r->ext += 1; }},
        {"ddz", [](struct mm_ring* r) { r->ddz = r->ext; }},
        {"ddz_len", [](struct mm_ring* r) { r->ddz_len = 0; }},
        {"pld_pos below", [](struct mm_ring* r) { r->pld_pos = -2; }},
        {"pld_pos above", [](struct mm_ring* r) { r->pld_pos = static_cast<off_t>(r->buflen) + 1; }},
        {"pld_pos unset with a unit", [](struct mm_ring* r) { r->pld_pos = -1; }},
        {"pld_size", [](struct mm_ring* r) { r->pld_size = r->buflen + 1; }},
        {"synced_len above the payload", [](struct mm_ring* r) { r->synced_len = 3 * 188; }},
        {"synced_len inside a unit", [](struct mm_ring* r) { r->synced_len = 187; }},
        {"first_pktnum", [](struct mm_ring* r) { r->first_pktnum = -1; }},
        {"last_pktnum", [](struct mm_ring* r) { r->last_pktnum = r->first_pktnum - 1; }},
    };
    ring->synced_len = 2 * 188;
    EXPECT_TRUE(mmr_validate(ring));
    const struct mm_ring sound = *ring;
    for (const damage& row : table) {
        row.do_it(ring);
        EXPECT_FALSE(mmr_validate(ring)) << row.what;
        *ring = sound;
    }
    EXPECT_TRUE(mmr_validate(ring));
    EXPECT_FALSE(mmr_validate(nullptr));
}

using mmr_dump_ = ring_test;

TEST_F(mmr_dump_, prints_the_record_in_words)
{
    make_standing(2 * PAGE, 2000, ts_bytes(500, 2000));
    mmr_add_pkts(ring, 7);
    unpacked();
    ring->synced_len = 188;
    char* mem = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&mem, &len);
    mmr_dump(ring, fp);
    mmr_dump(nullptr, fp);
    (void)fclose(fp);
    const std::string out = mem;
    free(mem);
    EXPECT_NE(out.find("[" + name() + "]"), std::string::npos) << out;
    EXPECT_NE(out.find("ready, valid"), std::string::npos) << out;
    EXPECT_NE(out.find("[TS] unit 188 bytes, unpacked"), std::string::npos) << out;
    EXPECT_NE(out.find("payload: 500 bytes at 2000, 188 seen in sync"), std::string::npos) << out;
    EXPECT_NE(out.find("numbered, 0 up to 7"), std::string::npos) << out;
    EXPECT_NE(out.find("ring: none"), std::string::npos) << out;
}

#if defined(KVT_DEEP_CHECKS)
TEST_F(mmr_validate_, guards_the_public_functions_of_a_checked_build)
{
    make_standing(2 * PAGE, 2000, ts_bytes(500, 2000));
    ring->mm_len += 1;
    struct mm_point pt = {};
    struct mm_info out = {};
    EXPECT_DEATH((void)mmr_iget(ring, &pt), "mmr_validate");
    EXPECT_DEATH((void)mmr_get_info(ring, &out), "mmr_validate");
    EXPECT_DEATH((void)cut::of(ring), "mmr_validate");
    EXPECT_DEATH((void)mmr_cap(ring, MIB), "mmr_validate");
    EXPECT_DEATH(mmr_rm_pkts(ring, 0); mmr_add_pkts(ring, 0), "mmr_validate");
    ring->mm_len -= 1;
}
#endif
