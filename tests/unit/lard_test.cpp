// Ring logs: layout, writing, temperature, and the log's own lines in them.
#include "lard.h"

#include "log.h"
#include "support/lard_kit.h"
#include "support/log_capture.h"
#include "support/std_capture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>

TV_LOG_MODULE(0)

using namespace lardkit;

namespace
{

class lard : public ring_log_test
{
};

template <typename T>
T at(const std::string& bytes, size_t offset)
{
    T val;
    memcpy(&val, bytes.data() + offset, sizeof(val));
    return val;
}

// ---- the objects ----------------------------------------------------------------------------------------------

TEST_F(lard, is_two_objects_that_only_the_owner_may_open)
{
    const mode_t before = umask(0);
    make(3);
    umask(before);
    struct stat st = {};
    ASSERT_EQ(stat(id.meta_path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777u, 0600u);
    EXPECT_EQ(st.st_size, 328);
    ASSERT_EQ(stat(id.data_path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777u, 0600u);
    EXPECT_EQ(static_cast<size_t>(st.st_size), 7 * PAGE); // twice three, and one
}

// Programs that were built apart read and write this record: each field has its place for good.
TEST_F(lard, the_record_has_a_fixed_layout)
{
    make(2);
    std::string rec = read_file(id.meta_path);
    ASSERT_EQ(rec.size(), 328u);
    EXPECT_EQ(at<uint64_t>(rec, 0), 2u);
    EXPECT_EQ(at<int32_t>(rec, 24), getpid());
    std::string rest = rec.substr(8, 16) + rec.substr(28);
    EXPECT_EQ(rest, std::string(rest.size(), '\0')); // all else begins as zero

    struct timespec before = {}, after = {};
    clock_gettime(CLOCK_MONOTONIC, &before);
    EXPECT_EQ(lard_puts(writer, "one\n"), 4);
    EXPECT_EQ(lard_puts(writer, "two\n"), 4);
    clock_gettime(CLOCK_MONOTONIC, &after);
    lard_set_temp(writer, 5);
    rec = read_file(id.meta_path);
    EXPECT_EQ(at<uint64_t>(rec, 8), 0u);
    EXPECT_EQ(at<uint64_t>(rec, 16), 8u);
    const auto sec = at<int64_t>(rec, 32), nsec = at<int64_t>(rec, 40);
    EXPECT_GE(sec, before.tv_sec);
    EXPECT_LE(sec, after.tv_sec);
    EXPECT_TRUE(nsec >= 0 && nsec < 1000000000);
    EXPECT_EQ(at<uint64_t>(rec, 48), 3u);
    EXPECT_EQ(at<int32_t>(rec, 56 + 2 * 4), 5);
    EXPECT_EQ(at<int32_t>(rec, 312), 5);
    EXPECT_EQ(at<uint8_t>(rec, 320), 0u);
    EXPECT_EQ(read_file(id.data_path).substr(0, 9), std::string("one\ntwo\n\0", 9));

    lard_close(writer);
    writer = nullptr;
    rec = read_file(id.meta_path);
    EXPECT_EQ(at<uint8_t>(rec, 320), 1u);
}

TEST_F(lard, the_ring_is_mapped_twice_with_a_dead_zone_behind)
{
    make(2);
    const struct lard_dbuf& buf = writer->dbuf;
    EXPECT_FALSE(buf.is_reader);
    EXPECT_EQ(buf.dlen, 2 * PAGE);
    EXPECT_EQ(buf.overlay, buf.data + buf.dlen);
    EXPECT_EQ(buf.olen, buf.dlen);
    EXPECT_EQ(buf.ddz, buf.overlay + buf.olen);
    EXPECT_EQ(buf.zlen, PAGE);
    buf.data[0] = 'a';
    EXPECT_EQ(buf.overlay[0], 'a');
    buf.overlay[buf.dlen - 1] = 'z';
    EXPECT_EQ(buf.data[buf.dlen - 1], 'z');
    EXPECT_DEATH(buf.ddz[0] = 'x', "");
    const volatile char* const dead = buf.ddz;
    EXPECT_DEATH((void)dead[0], ""); // not even to be looked at
    EXPECT_TRUE(lard_validate(writer));
}

TEST_F(lard, takes_the_place_of_an_old_one_of_its_name)
{
    make();
    EXPECT_EQ(lard_puts(writer, "old\n"), 4);
    lard_set_temp(writer, 9);
    lard_close(writer);
    make(2);
    EXPECT_EQ(meta().seg_pages, 2u);
    EXPECT_EQ(meta().pld_len, 0u);
    EXPECT_EQ(meta().sns.sum, 0);
    EXPECT_FALSE(meta().is_closed);
    EXPECT_EQ(ring(), std::string(2 * PAGE, '\0'));
}

TEST_F(lard, a_null_name_is_an_assertion)
{
    const char* name = nullptr;
    EXPECT_DEATH((void)lard_create(name, 1), "Assertion `NULL != name' failed");
    EXPECT_DEATH((void)lard_open(name), "Assertion `NULL != name' failed");
}

TEST_F(lard, a_name_of_more_than_255_characters_is_too_long)
{
    const std::string name(256, 'n');
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(lard_create(name.c_str(), 1), nullptr); }),
              "lard_create: fprintf out of bounds: 262\n");
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(lard_open(name.c_str()), nullptr); }),
              "lard_open: fprintf out of bounds: 262\n");
    // Shorter ones are the system's to judge.
    const std::string judged = "lard_open: shm_open(/" + name.substr(1) + ".meta) ERROR(";
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(lard_open(name.substr(1).c_str()), nullptr); }).substr(0, judged.size()),
              judged);
}

TEST_F(lard, the_longest_name_that_a_file_can_have_works)
{
    const std::string name = (id.name + std::string(250, 'n')).substr(0, 250);
    lard_t lh = lard_create(name.c_str(), 1);
    ASSERT_NE(lh, nullptr);
    EXPECT_EQ(access(("/dev/shm/" + name + ".meta").c_str(), F_OK), 0);
    lard_destroy(lh);
    EXPECT_NE(access(("/dev/shm/" + name + ".meta").c_str(), F_OK), 0);
    EXPECT_NE(access(("/dev/shm/" + name + ".dat").c_str(), F_OK), 0);
}

TEST_F(lard, more_pages_than_an_object_can_have_are_refused)
{
    for (const size_t npages :
         {SIZE_MAX, SIZE_MAX / 2, SIZE_MAX / 2 / PAGE, static_cast<size_t>(LONG_MAX) / PAGE / 2 + 1}) {
        const std::string said = stderr_of([&] { EXPECT_EQ(lard_create(id.name.c_str(), npages), nullptr); });
        EXPECT_EQ(said, "lard_create: " + id.name + ": " + std::to_string(npages) +
                            " pages are more than an object can have\n");
        EXPECT_EQ(errno, EFBIG);
    }
    EXPECT_NE(access(id.meta_path.c_str(), F_OK), 0);
}

TEST_F(lard, no_pages_are_refused_by_the_overlay)
{
    std::string said = stderr_of([&] { EXPECT_EQ(lard_create(id.name.c_str(), 0), nullptr); });
    const size_t fd = said.find("fd");
    ASSERT_NE(fd, std::string::npos);
    said.erase(fd, said.find(',', fd) - fd);
    EXPECT_EQ(said, "lard_create: EXT mmap(NULL, 0, .., , 0) ERROR(22): Invalid argument\n");
    EXPECT_NE(access(id.meta_path.c_str(), F_OK), 0);
    EXPECT_NE(access(id.data_path.c_str(), F_OK), 0);
}

// ---- writing --------------------------------------------------------------------------------------------------

TEST_F(lard, a_text_stands_behind_the_one_before)
{
    make();
    EXPECT_EQ(lard_puts(writer, "first\n"), 6);
    EXPECT_EQ(lard_printf(writer, "%s %d\n", "second", 2), 9);
    EXPECT_EQ(meta().pld_start, 0u);
    EXPECT_EQ(meta().pld_len, 15u);
    EXPECT_EQ(ring().substr(0, 16), std::string("first\nsecond 2\n\0", 16));
    EXPECT_EQ(whole(writer), "first\nsecond 2\n");
    EXPECT_TRUE(lard_validate(writer));
}

TEST_F(lard, a_text_that_passes_the_end_of_the_ring_is_whole_in_memory)
{
    make();
    fill_to(size - 4);
    EXPECT_EQ(lard_puts(writer, "abcdefgh\n"), 9);
    EXPECT_EQ(std::string(writer->dbuf.data + size - 4, 9), "abcdefgh\n");
    EXPECT_EQ(ring().substr(0, 6), std::string("efgh\n\0", 6));
    EXPECT_EQ(meta().pld_start, 5u);
    EXPECT_EQ(meta().pld_len, size);
    EXPECT_EQ(whole(writer), std::string(size - 10, 'f') + "abcdefgh\n"); // one more byte gave way to the terminator
    EXPECT_TRUE(lard_validate(writer));
}

TEST_F(lard, the_ring_fills_up_to_its_last_byte_before_the_start_moves)
{
    make();
    fill_to(size - 5);
    EXPECT_EQ(lard_puts(writer, "abcd\n"), 5);
    EXPECT_EQ(meta().pld_start, 0u);
    EXPECT_EQ(meta().pld_len, size);
    EXPECT_EQ(ring()[0], '\0'); // the terminator
    EXPECT_EQ(lard_puts(writer, "e\n"), 2);
    EXPECT_EQ(meta().pld_start, 2u);
    EXPECT_EQ(meta().pld_len, size);
    EXPECT_EQ(ring().substr(0, 3), std::string("e\n\0", 3));
}

TEST_F(lard, the_start_wraps_with_the_ring)
{
    make();
    fill_to(size);
    for (size_t i = 0; i < 3 * size / 100; ++i) {
        const size_t before = meta().pld_start;
        EXPECT_EQ(lard_puts(writer, std::string(99, 'g').append("\n").c_str()), 100);
        EXPECT_EQ(meta().pld_start, (before + 100) % size);
        EXPECT_EQ(meta().pld_len, size);
        ASSERT_TRUE(lard_validate(writer));
    }
}

TEST_F(lard, a_text_as_long_as_the_ring_does_not_fit_and_leaves_it_alone)
{
    make();
    for (const size_t held : {size_t{0}, size_t{20}, size}) {
        fill_to(held);
        lard_set_temp(writer, 3);
        const std::string text_before = ring(), record_before = read_file(id.meta_path);
        for (const size_t n : {size, size + 1, 3 * size}) {
            const std::string text(n, 'x');
            EXPECT_EQ(lard_puts(writer, text.c_str()), -7);
            EXPECT_EQ(lard_printf(writer, "%s", text.c_str()), -7);
        }
        EXPECT_EQ(lard_puts(writer, ""), -7);
        EXPECT_EQ(lard_printf(writer, "%s", ""), -7);
        EXPECT_EQ(ring(), text_before);
        EXPECT_EQ(read_file(id.meta_path), record_before);
    }
}

TEST_F(lard, a_single_character_is_a_text)
{
    make();
    EXPECT_EQ(lard_puts(writer, "a"), 1);
    EXPECT_EQ(lard_printf(writer, "%c", 'b'), 1);
    EXPECT_EQ(whole(writer), "ab");
}

TEST_F(lard, a_text_one_byte_shorter_than_the_ring_fits)
{
    make();
    std::string text(size - 1, 'x');
    EXPECT_EQ(lard_puts(writer, text.c_str()), static_cast<int>(size - 1));
    EXPECT_EQ(whole(writer), text);
    text.back() = 'y';
    EXPECT_EQ(lard_printf(writer, "%s", text.c_str()), static_cast<int>(size - 1));
    EXPECT_EQ(meta().pld_len, size);
    EXPECT_EQ(whole(writer), text);
}

TEST_F(lard, any_run_of_texts_leaves_the_newest_bytes)
{
    make();
    unsigned seed = 20260801; // the same texts in each run
    std::string all;
    struct lard_cursor cur = {};
    for (int i = 0; i < 3000; ++i) {
        seed = seed * 1103515245 + 12345;
        const size_t n = 1 + (seed >> 8) % (i % 50 == 0 ? size - 1 : 200);
        const std::string text = std::string(n - 1, static_cast<char>('a' + i % 26)) + "\n";
        ASSERT_EQ(lard_puts(writer, text.c_str()), static_cast<int>(n));
        all += text;
        ASSERT_TRUE(lard_validate(writer));
        // The terminator takes a byte of a full ring.
        ASSERT_EQ(whole(writer), all.size() < size ? all : all.substr(all.size() - size + 1));
        bool lost = true;
        ASSERT_EQ(read_new(writer, &cur, &lost), text);
        ASSERT_FALSE(lost);
    }
}

TEST_F(lard, a_handler_that_interrupts_a_write_is_refused)
{
    make();
    EXPECT_EQ(lard_puts(writer, "main\n"), 5);
    writer->is_writing = 1; // as in the middle of a call
    const std::string record_before = read_file(id.meta_path);
    EXPECT_EQ(lard_puts(writer, "handler\n"), -7);
    EXPECT_EQ(lard_printf(writer, "%s", "handler\n"), -7);
    lard_set_temp(writer, 4);
    EXPECT_EQ(read_file(id.meta_path), record_before);
    EXPECT_EQ(writer->is_writing, 1); // the interrupted call is still on
    writer->is_writing = 0;
    EXPECT_EQ(lard_puts(writer, "main\n"), 5);
    EXPECT_EQ(whole(writer), "main\nmain\n");
}

TEST_F(lard, a_reader_does_not_write)
{
    make();
    open_reader();
    EXPECT_DEATH((void)lard_puts(reader, "x"), "Assertion");
    EXPECT_DEATH((void)lard_printf(reader, "x"), "Assertion");
    EXPECT_DEATH(lard_set_temp(reader, 1), "Assertion");
}

// ---- temperature ----------------------------------------------------------------------------------------------

TEST_F(lard, sixty_four_quiet_lines_bring_the_temperature_back_to_0)
{
    make();
    EXPECT_EQ(lard_puts(writer, "bad\n"), 4);
    lard_set_temp(writer, 3);
    EXPECT_EQ(lard_get_ctemp(writer), 3);
    for (int i = 0; i < 63; ++i)
        lard_puts(writer, "quiet\n");
    EXPECT_EQ(lard_get_ctemp(writer), 3);
    EXPECT_EQ(lard_puts(writer, "quiet\n"), 6);
    EXPECT_EQ(lard_get_ctemp(writer), 0);
}

TEST_F(lard, the_temperature_is_the_sum_of_the_last_64_readings)
{
    make();
    for (int i = 1; i <= 64; ++i)
        lard_set_temp(writer, i);
    EXPECT_EQ(lard_get_ctemp(writer), 64 * 65 / 2);
    EXPECT_EQ(meta().sns.idx, 0u); // wrapped
    lard_set_temp(writer, 100);
    EXPECT_EQ(lard_get_ctemp(writer), 64 * 65 / 2 - 1 + 100);
    EXPECT_EQ(meta().sns.idx, 1u);
    EXPECT_EQ(meta().sns.val[0], 100);
    EXPECT_TRUE(lard_validate(writer));
}

TEST_F(lard, a_temperature_below_0_is_an_assertion)
{
    make();
    lard_set_temp(writer, 2);
    lard_set_temp(writer, -2); // down to 0 is fine
    EXPECT_EQ(lard_get_ctemp(writer), 0);
    EXPECT_DEATH(lard_set_temp(writer, -1), "Assertion `m->sns.sum >= 0' failed");
    EXPECT_EQ(lard_get_ctemp(writer), -1); // the child shares the record, and has left it so
}

TEST_F(lard, a_temperature_past_the_largest_number_is_an_assertion)
{
    make();
    lard_set_temp(writer, INT_MAX);
    EXPECT_DEATH(lard_set_temp(writer, 1), "Assertion `m->sns.sum >= 0' failed");
}

// ---- the log's lines ------------------------------------------------------------------------------------------

class lard_log : public lard
{
protected:
    void SetUp() override
    {
        make();
        log_timefmt(&g_log, LTF_NO_TIME);
        EXPECT_EQ(log_set_lard(&g_log, writer), nullptr);
    }
    void TearDown() override
    {
        (void)log_set_lard(&g_log, nullptr);
        log_timefmt(&g_log, 0);
        lard::TearDown();
    }
    LogCapture log{&g_log, ll::normal};
};

TEST_F(lard_log, takes_every_line_whatever_the_levels_say)
{
    int evaluated = 0;
    tv_log(ll::debug, "debug %d\n", ++evaluated);
    tv_log(ll::normal, "normal %d\n", ++evaluated);
    EXPECT_EQ(whole(writer), "(DBG)  debug 1\n(NRM)  normal 2\n");
    EXPECT_EQ(log.text(), "(NRM)  normal 2\n"); // and the line was built once for both
    EXPECT_EQ(evaluated, 2);
}

TEST_F(lard_log, bad_lines_raise_the_temperature_by_their_level)
{
    tv_log(ll::debug, "x\n");
    tv_log(ll::normal, "x\n");
    EXPECT_EQ(lard_get_ctemp(writer), 0);
    EXPECT_EQ(meta().sns.idx, 2u);
    tv_log(ll::warning, "x\n");
    EXPECT_EQ(lard_get_ctemp(writer), 1);
    EXPECT_EQ(meta().sns.idx, 4u); // a 0 for the line, then the reading
    tv_log(ll::panic, "x\n");
    tv_log(ll::error, "x\n");
    EXPECT_EQ(lard_get_ctemp(writer), 1 + 4 + 3);
}

TEST_F(lard_log, a_line_of_which_nothing_was_built_is_not_there)
{
    log_timefmt(&g_log, LTF_RAW | 3); // no such clock
    (void)stderr_of([] { tv_log(ll::error, "x\n"); });
    EXPECT_EQ(meta().pld_len, 0u);
    EXPECT_EQ(lard_get_ctemp(writer), 0);
}

TEST_F(lard_log, records_go_there_only_from_their_own_channel)
{
    LogCapture alerts(&g_access_log);
    tv_record(&g_access_log, "ALERT x\n");
    EXPECT_EQ(meta().pld_len, 0u);
    EXPECT_NE(alerts.text(), "");
}

TEST_F(lard_log, a_failed_assertion_leaves_its_call_stack_to_readers)
{
    EXPECT_DEATH(tv_assert_logged(1 > 2), "Assertion `1 > 2' failed"); // in a child that writes to the same ring
    open_reader();
    EXPECT_EQ(whole(reader).substr(0, 22), "(PNC)  ASSERT at:\n#0: ");
    EXPECT_EQ(lard_get_ctemp(reader), 4);
}

TEST_F(lard_log, closing_the_channel_destroys_it)
{
    FILE* const before = g_log.fp;
    g_log.fp = fdopen(memfd_create("log", 0), "a+");
    open_reader();
    log_close(&g_log);
    writer = nullptr;
    EXPECT_EQ(g_log.lh, nullptr);
    bool crashed = true;
    EXPECT_FALSE(lard_is_active(reader, &crashed));
    EXPECT_FALSE(crashed);
    EXPECT_NE(access(id.meta_path.c_str(), F_OK), 0);
    EXPECT_NE(access(id.data_path.c_str(), F_OK), 0);
    g_log.fp = before;
}

TEST_F(lard_log, closing_a_standard_stream_leaves_it)
{
    FILE* const before = g_log.fp;
    g_log.fp = stderr;
    log_close(&g_log);
    EXPECT_EQ(g_log.lh, writer);
    EXPECT_EQ(lard_puts(writer, "on\n"), 3);
    g_log.fp = before;
}

// ---- debugging aids -------------------------------------------------------------------------------------------

TEST_F(lard, a_handle_that_does_not_hold_together_is_told)
{
    make();
    EXPECT_EQ(lard_puts(writer, "text\n"), 5);
    EXPECT_TRUE(lard_validate(writer));
    EXPECT_FALSE(lard_validate(nullptr));
    const struct lard_meta good = *writer->meta;
    const std::function<void()> damages[] = {
        [&] { writer->meta->seg_pages = 0; },      [&] { writer->meta->pld_start = size; },
        [&] { writer->meta->pld_len = size + 1; }, [&] { writer->meta->pld_start = 1; },
        [&] { writer->meta->sns.idx = 64; },       [&] { writer->meta->sns.sum = -1; },
        [&] { writer->meta->sns.sum = 1; },        [&] { writer->meta->sns.val[7] = 1; },
    };
    for (const auto& damage : damages) {
        damage();
        EXPECT_FALSE(lard_validate(writer)) << &damage - damages;
        *writer->meta = good;
    }
    const struct lard_ctx handle = *writer;
    const std::function<void()> handle_damages[] = {
        [&] { writer->mfd = -1; },
        [&] { writer->dbuf.dfd = -1; },
        [&] { writer->buflen = 0; },
        [&] { writer->dbuf.dlen -= 1; },
        [&] { writer->dbuf.olen = 0; },
        [&] { writer->dbuf.overlay -= 1; },
        [&] { writer->dbuf.ddz -= 1; },
        [&] { writer->dbuf.zlen = 0; },
        [&] { writer->dbuf.data = nullptr; },
        [&] { writer->meta = nullptr; },
        [&] { memset(writer->name, 'x', sizeof(writer->name)); },
    };
    for (const auto& damage : handle_damages) {
        damage();
        EXPECT_FALSE(lard_validate(writer)) << &damage - handle_damages;
        memcpy(static_cast<void*>(writer), &handle, sizeof(handle));
    }
    EXPECT_TRUE(lard_validate(writer));
}

TEST_F(lard, a_handle_prints_in_words)
{
    make();
    EXPECT_EQ(lard_puts(writer, "text\n"), 5);
    lard_set_temp(writer, 6);
    const LogCapture out(&g_access_log); // a file to print to
    lard_dump(writer, out.stream());
    lard_dump(nullptr, out.stream());
    const std::string text = out.text();
    for (const std::string& part :
         {"ring log [" + id.name + "], writer, valid", std::string("text: 5 bytes at 0"),
          "owner: " + std::to_string(getpid()) + "\n", std::string("temperature: 6, next reading in slot 2"),
          std::string("ring log: none")})
        EXPECT_NE(text.find(part), std::string::npos) << part << " in\n" << text;
}

} // namespace
