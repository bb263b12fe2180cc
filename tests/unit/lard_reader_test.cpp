// Ring logs as a reader finds them: those of other processes, alive or dead, snapshots, following, and objects that are
// not what they say.
#include "lard.h"

#include "support/lard_kit.h"
#include "support/std_capture.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <limits>

using namespace lardkit;

namespace
{

class lard_reader : public ring_log_test
{
};

// ---- another process ------------------------------------------------------------------------------------------

TEST_F(lard_reader, another_process_reads_what_a_living_one_writes)
{
    child_writer child(id.name, 2, [](lard_t lh) {
        lard_puts(lh, "one\n");
        lard_printf(lh, "%s\n", "two");
        lard_set_temp(lh, 4);
    });
    open_reader();
    EXPECT_EQ(snapshot(reader), "one\ntwo\n");
    EXPECT_EQ(whole(reader), "one\ntwo\n");
    EXPECT_EQ(lard_owner_pid(reader), child.pid);
    EXPECT_EQ(lard_get_ctemp(reader), 4);
    bool crashed = true;
    EXPECT_TRUE(lard_is_active(reader, &crashed));
    EXPECT_FALSE(crashed);
    EXPECT_TRUE(lard_is_active(reader, nullptr));
    EXPECT_TRUE(reader->dbuf.is_reader);
    EXPECT_EQ(reader->dbuf.overlay, nullptr);
    EXPECT_EQ(reader->dbuf.dlen, 2 * PAGE);
    EXPECT_TRUE(lard_validate(reader));
}

TEST_F(lard_reader, the_lines_of_a_killed_writer_can_still_be_read)
{
    child_writer child(id.name, 1, [](lard_t lh) {
        lard_puts(lh, "last words\n");
        lard_set_temp(lh, 3);
    });
    open_reader(); // before and
    const pid_t pid = child.pid;
    child.finish(SIGKILL);
    lard_close(reader);
    open_reader(); // after its end
    EXPECT_EQ(snapshot(reader), "last words\n");
    EXPECT_EQ(lard_owner_pid(reader), pid);
    EXPECT_EQ(lard_get_ctemp(reader), 3);
    bool crashed = false;
    EXPECT_FALSE(lard_is_active(reader, &crashed));
    EXPECT_TRUE(crashed);
    EXPECT_FALSE(lard_is_active(reader, nullptr));
}

TEST_F(lard_reader, a_writer_that_closed_has_not_crashed)
{
    child_writer child(id.name, 1, [](lard_t lh) { lard_puts(lh, "bye\n"); });
    open_reader();
    EXPECT_EQ(child.finish_orderly(), 0);
    bool crashed = true;
    EXPECT_FALSE(lard_is_active(reader, &crashed));
    EXPECT_FALSE(crashed);
    EXPECT_EQ(snapshot(reader), "bye\n");
}

TEST_F(lard_reader, a_writer_that_lives_on_after_closing_is_not_active)
{
    make();
    open_reader();
    bool crashed = true;
    EXPECT_TRUE(lard_is_active(reader, &crashed));
    lard_close(writer);
    writer = nullptr;
    crashed = true;
    EXPECT_FALSE(lard_is_active(reader, &crashed));
    EXPECT_FALSE(crashed);
}

TEST_F(lard_reader, a_record_without_an_owner_is_not_active)
{
    make();
    open_reader();
    for (const pid_t pid : {0, -1}) {
        writer->meta->owner_pid = pid;
        bool crashed = true;
        EXPECT_FALSE(lard_is_active(reader, &crashed));
        EXPECT_FALSE(crashed);
    }
}

TEST_F(lard_reader, process_1_can_be_an_owner)
{
    // As a writer in a container is. Whether this process may signal it decides.
    make();
    open_reader();
    writer->meta->owner_pid = 1;
    const bool lives = kill(1, 0) == 0;
    bool crashed = lives;
    EXPECT_EQ(lard_is_active(reader, &crashed), lives);
    EXPECT_EQ(crashed, !lives);
}

TEST_F(lard_reader, any_mark_but_0_says_that_the_writer_closed)
{
    // A byte of another process's memory, which may hold what no bool does.
    make();
    open_reader();
    for (const unsigned mark : {2u, 128u, 254u, 255u}) {
        memset(&writer->meta->is_closed, static_cast<int>(mark), 1);
        bool crashed = true;
        writer->meta->owner_pid = getpid();
        EXPECT_FALSE(lard_is_active(reader, &crashed)) << mark;
        EXPECT_FALSE(crashed) << mark;
        crashed = true;
        writer->meta->owner_pid = std::numeric_limits<pid_t>::max(); // nobody
        EXPECT_FALSE(lard_is_active(reader, &crashed)) << mark;
        EXPECT_FALSE(crashed) << mark;
    }
    memset(&writer->meta->is_closed, 0, 1);
}

TEST_F(lard_reader, a_child_that_inherited_the_handle_does_not_close_for_its_parent)
{
    make();
    open_reader();
    const pid_t pid = fork();
    if (pid == 0) {
        lard_close(writer);
        _exit(0);
    }
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
    EXPECT_FALSE(meta().is_closed);
    EXPECT_TRUE(lard_is_active(reader, nullptr));
}

TEST_F(lard_reader, a_reader_in_the_writers_own_process_closes_nothing)
{
    make();
    open_reader();
    lard_close(reader);
    reader = nullptr;
    EXPECT_FALSE(meta().is_closed);
    EXPECT_EQ(lard_puts(writer, "on\n"), 3);
}

TEST_F(lard_reader, a_destroyed_one_can_not_be_opened_and_stays_with_those_who_have_it)
{
    make();
    EXPECT_EQ(lard_puts(writer, "text\n"), 5);
    open_reader();
    EXPECT_EQ(stderr_of([&] { lard_destroy(writer); }), "");
    writer = nullptr;
    EXPECT_EQ(whole(reader), "text\n");
    EXPECT_FALSE(lard_is_active(reader, nullptr));
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(lard_open(id.name.c_str()), nullptr); }),
              "lard_open: shm_open(/" + id.name + ".meta) ERROR(2): No such file or directory\n");
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(lard_reader, objects_that_are_gone_already_are_told_when_destroying)
{
    make();
    unlink(id.meta_path.c_str());
    unlink(id.data_path.c_str());
    EXPECT_EQ(stderr_of([&] { lard_destroy(writer); }), "shm_unlink (META): No such file or directory\n"
                                                        "shm_unlink (DATA): No such file or directory\n");
    writer = nullptr;
}

TEST_F(lard_reader, leaving_nothing_is_no_error)
{
    lard_close(nullptr);
    lard_destroy(nullptr);
}

TEST_F(lard_reader, a_closed_one_leaves_no_descriptor)
{
    const size_t held = open_descriptors();
    make();
    open_reader();
    EXPECT_EQ(open_descriptors(), held + 4);
    lard_close(reader);
    EXPECT_EQ(open_descriptors(), held + 2);
    lard_destroy(writer);
    reader = writer = nullptr;
    EXPECT_EQ(open_descriptors(), held);
    EXPECT_EQ(lard_probe(id.name.c_str()), -1);
    make();
    EXPECT_EQ(lard_probe(id.name.c_str()), 0);
    EXPECT_EQ(open_descriptors(), held + 2);
}

// ---- objects that are not what they say -----------------------------------------------------------------------

TEST_F(lard_reader, it_can_be_asked_whether_there_is_something_to_open)
{
    const auto probe = [](const std::string& name) {
        errno = 0;
        return lard_probe(name.c_str()) == 0 ? 0 : errno;
    };
    EXPECT_EQ(stderr_of([&] {
                  EXPECT_EQ(probe(id.name), ENOENT);
                  EXPECT_EQ(probe("a/b"), EINVAL);
                  EXPECT_EQ(probe(std::string(256, 'n')), ENAMETOOLONG);
                  make();
                  EXPECT_EQ(probe(id.name), 0);
                  writer->meta->seg_pages = 0;
                  EXPECT_EQ(probe(id.name), EAGAIN);
                  ASSERT_EQ(truncate(id.meta_path.c_str(), 0), 0);
                  EXPECT_EQ(probe(id.name), EAGAIN);
                  ASSERT_EQ(truncate(id.meta_path.c_str(), sizeof(struct lard_meta)), 0);
              }),
              "");
    const char* name = nullptr;
    EXPECT_DEATH((void)lard_probe(name), "Assertion `NULL != name' failed");
}

TEST_F(lard_reader, a_record_without_pages_is_an_assertion)
{
    make();
    writer->meta->seg_pages = 0;
    EXPECT_DEATH((void)lard_open(id.name.c_str()), "Assertion `npages > 0' failed");
}

TEST_F(lard_reader, objects_too_small_for_what_they_say_are_refused)
{
    make();
    const auto refusal = [&] { return stderr_of([&] { EXPECT_EQ(lard_open(id.name.c_str()), nullptr); }); };
    const auto too_few = [&](const char* which, size_t bytes) {
        return "lard_open: /" + id.name + which + " has " + std::to_string(bytes) +
               " bytes, too few for what it says to be\n";
    };
    for (const size_t npages : {size_t{2}, size_t{1} << 40, SIZE_MAX, SIZE_MAX / PAGE + 2}) {
        writer->meta->seg_pages = npages;
        EXPECT_EQ(refusal(), too_few(".dat", 3 * PAGE));
        EXPECT_EQ(errno, EINVAL);
    }
    writer->meta->seg_pages = 1;
    ASSERT_EQ(truncate(id.data_path.c_str(), static_cast<off_t>(3 * PAGE - 1)), 0);
    EXPECT_EQ(refusal(), too_few(".dat", 3 * PAGE - 1));
    ASSERT_EQ(truncate(id.meta_path.c_str(), 327), 0);
    EXPECT_EQ(refusal(), too_few(".meta", 327));
    ASSERT_EQ(truncate(id.meta_path.c_str(), 0), 0);
    EXPECT_EQ(refusal(), too_few(".meta", 0));
    ASSERT_EQ(truncate(id.meta_path.c_str(), 328), 0);
    unlink(id.data_path.c_str());
    writer->meta->seg_pages = 1;
    EXPECT_EQ(refusal(), "lard_open: shm_open(/" + id.name + ".dat) ERROR(2): No such file or directory\n");
}

TEST_F(lard_reader, a_record_that_points_outside_the_ring_is_not_followed)
{
    make();
    open_reader();
    const struct {
        size_t start, len;
    } rows[] = {{size, 0}, {SIZE_MAX, 1}, {0, size + 1}, {5, SIZE_MAX}, {size - 1, size + 1}};
    for (const auto& r : rows) {
        writer->meta->pld_start = r.start;
        writer->meta->pld_len = r.len;
        struct lard_view view;
        struct lard_cursor cur = {};
        char buf[8];
        EXPECT_EQ(lard_look(reader, &view), -1);
        errno = 0;
        EXPECT_EQ(lard_snapshot(reader, 1), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(lard_read_new(reader, &cur, buf, sizeof(buf), nullptr), -1);
        EXPECT_FALSE(lard_validate(reader));
    }
    writer->meta->pld_start = 0;
    writer->meta->pld_len = 0;
}

// Nothing of what the reader has mapped lies behind the ring: a piece that went on there would be a failed write.
TEST_F(lard_reader, a_snapshot_never_passes_the_ring_whatever_the_record_says)
{
    make();
    open_reader();
    memset(writer->dbuf.data, 'x', size);
    for (const size_t start : {size_t{0}, size_t{1}, size_t{2}, size_t{100}, size - 2, size - 1}) {
        for (const size_t len : {size_t{0}, size_t{1}, size_t{50}, size - 1, size}) {
            for (const char oldest : {'x', '\0'}) {
                SCOPED_TRACE(testing::Message() << start << " " << len << " " << int{oldest});
                writer->dbuf.data[start] = oldest;
                writer->meta->pld_start = start;
                writer->meta->pld_len = len;
                EXPECT_LE(snapshot(reader).size(), size);
                writer->dbuf.data[start] = 'x';
            }
        }
    }
    writer->meta->pld_start = writer->meta->pld_len = 0;
}

// ---- snapshot -------------------------------------------------------------------------------------------------

TEST_F(lard_reader, a_snapshot_of_a_ring_that_is_not_full_is_its_text)
{
    make();
    open_reader();
    EXPECT_EQ(snapshot(reader), "");
    EXPECT_EQ(lard_puts(writer, "one\n"), 4);
    EXPECT_EQ(snapshot(reader), "one\n");
    EXPECT_EQ(snapshot(writer), "one\n");
}

// By design: what has read these files knows that the newest byte, as a rule a line feed, is missing.
TEST_F(lard_reader, a_snapshot_of_a_full_ring_begins_behind_the_terminator_and_lacks_the_newest_byte)
{
    make();
    open_reader();
    fill_to(size - 4);
    EXPECT_EQ(lard_puts(writer, "abcdefgh\n"), 9); // start 5, the terminator there
    const std::string expected = ring().substr(6) + "efgh";
    EXPECT_EQ(expected.size(), size - 2);
    EXPECT_EQ(snapshot(reader), expected);
    EXPECT_EQ(snapshot(writer), expected);
}

TEST_F(lard_reader, a_snapshot_of_a_full_ring_whose_oldest_byte_is_text_is_all_of_it)
{
    make();
    fill_to(size - 4);
    EXPECT_EQ(lard_puts(writer, "abcdefgh\n"), 9);
    writer->dbuf.data[5] = 'T';
    EXPECT_EQ(snapshot(writer), ring().substr(5) + "efgh\n");
}

// By design: such a ring goes out as it lies in memory, terminator and newest byte first.
TEST_F(lard_reader, a_snapshot_of_a_ring_that_starts_at_its_first_or_second_byte_is_its_memory)
{
    make();
    fill_to(size);
    EXPECT_EQ(meta().pld_start, 0u);
    EXPECT_EQ(snapshot(writer), ring());
    EXPECT_EQ(ring()[0], '\0');
    EXPECT_EQ(lard_puts(writer, "\n"), 1);
    EXPECT_EQ(meta().pld_start, 1u);
    EXPECT_EQ(snapshot(writer), ring());
    EXPECT_EQ(ring().substr(0, 2), std::string("\n\0", 2));
    EXPECT_EQ(lard_puts(writer, "\n"), 1);
    EXPECT_EQ(meta().pld_start, 2u);
    EXPECT_EQ(snapshot(writer), ring().substr(3) + "\n");
}

// By design: no writer leaves such a record, and the pieces are counted for it as for a full ring, the byte behind the
// first piece included.
TEST_F(lard_reader, a_snapshot_of_a_ring_that_starts_further_on_without_being_full_counts_from_its_start)
{
    make();
    for (size_t i = 0; i < size; ++i)
        writer->dbuf.data[i] = static_cast<char>('A' + i % 26);
    writer->meta->pld_start = 10;
    writer->meta->pld_len = 20;
    EXPECT_EQ(snapshot(writer), "KLMNOPQRSTU" // 20 - 10 + 1
                                "ABCDEFGHIJ");
    writer->dbuf.data[10] = '\0';
    EXPECT_EQ(snapshot(writer), "LMNOPQRSTU"
                                "ABCDEFGHI");
    writer->meta->pld_len = 10; // all that the terminator leaves of the first piece is the byte behind it
    EXPECT_EQ(snapshot(writer), "ABCDEFGHI");
    writer->meta->pld_len = 3; // less than nothing
    EXPECT_EQ(snapshot(writer), "ABCDEFGHI");
    writer->meta->pld_start = writer->meta->pld_len = 0;
}

TEST_F(lard_reader, a_snapshot_that_can_not_be_written_is_a_failure)
{
    make();
    fill_to(size);
    EXPECT_EQ(lard_snapshot(writer, -1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(lard_puts(writer, "abcd\n"), 5);
    EXPECT_EQ(lard_snapshot(writer, -1), -1);
    EXPECT_EQ(errno, EBADF);
}

// ---- following ------------------------------------------------------------------------------------------------

TEST_F(lard_reader, a_reader_gets_what_is_new_since_it_last_looked)
{
    make();
    open_reader();
    struct lard_cursor cur = {};
    bool lost = true;
    EXPECT_EQ(read_new(reader, &cur, &lost), "");
    EXPECT_FALSE(lost);
    EXPECT_EQ(lard_puts(writer, "one\n"), 4);
    EXPECT_EQ(read_new(reader, &cur, &lost), "one\n");
    EXPECT_FALSE(lost);
    EXPECT_EQ(read_new(reader, &cur), "");
    EXPECT_EQ(lard_puts(writer, "two\n"), 4);
    EXPECT_EQ(lard_puts(writer, "three\n"), 6);
    EXPECT_EQ(read_new(reader, &cur), "two\nthree\n");
}

TEST_F(lard_reader, a_small_buffer_gets_the_text_in_pieces)
{
    make();
    open_reader();
    EXPECT_EQ(lard_puts(writer, "abcdefgh\n"), 9);
    struct lard_cursor cur = {};
    char buf[4];
    std::string all;
    for (ssize_t n; (n = lard_read_new(reader, &cur, buf, sizeof(buf), nullptr)) > 0;)
        all.append(buf, static_cast<size_t>(n));
    EXPECT_EQ(all, "abcdefgh\n");
    EXPECT_EQ(lard_read_new(reader, &cur, buf, 0, nullptr), 0);
}

TEST_F(lard_reader, a_reader_that_was_overtaken_is_told_and_begins_with_the_oldest_byte)
{
    make();
    open_reader();
    struct lard_cursor cur = {};
    EXPECT_EQ(lard_puts(writer, "seen\n"), 5);
    EXPECT_EQ(read_new(reader, &cur), "seen\n");
    std::string all;
    for (int i = 0; all.size() < size + 300; ++i) {
        const std::string line = "line " + std::to_string(i) + "\n";
        lard_puts(writer, line.c_str());
        all += line;
    }
    bool lost = false;
    EXPECT_EQ(read_new(reader, &cur, &lost), all.substr(all.size() - size + 1));
    EXPECT_TRUE(lost);
    EXPECT_EQ(lard_puts(writer, "next\n"), 5);
    EXPECT_EQ(read_new(reader, &cur, &lost), "next\n");
    EXPECT_FALSE(lost);
}

TEST_F(lard_reader, a_reader_that_was_overtaken_goes_on_in_small_pieces_without_another_loss)
{
    make();
    open_reader();
    struct lard_cursor cur = {};
    EXPECT_EQ(lard_puts(writer, "seen\n"), 5);
    EXPECT_EQ(read_new(reader, &cur), "seen\n");
    fill_to(size);
    EXPECT_EQ(lard_puts(writer, "abcdefgh\n"), 9);
    const std::string expected = whole(reader);
    char piece[3];
    bool lost = false;
    std::string text;
    for (ssize_t n; (n = lard_read_new(reader, &cur, piece, sizeof(piece), &lost)) > 0;) {
        EXPECT_EQ(lost, text.empty()) << "after " << text.size() << " bytes";
        text.append(piece, static_cast<size_t>(n));
        ASSERT_LE(text.size(), size);
    }
    EXPECT_EQ(text, expected);
}

TEST_F(lard_reader, a_reader_that_was_overtaken_forgets_what_it_knew)
{
    make();
    open_reader();
    struct lard_cursor cur = {};
    EXPECT_EQ(lard_puts(writer, "seen once, and long enough to be remembered for a while yet\n"), 60);
    EXPECT_EQ(read_new(reader, &cur).size(), 60u);
    fill_to(size);
    EXPECT_EQ(lard_puts(writer, "some more of it, so that the place has been written over already\n"), 65);
    char piece[3];
    bool lost = false;
    EXPECT_EQ(lard_read_new(reader, &cur, piece, sizeof(piece), &lost), 3);
    EXPECT_TRUE(lost);
    EXPECT_EQ(cur.tail_len, 3u); // the piece alone
}

TEST_F(lard_reader, a_reader_that_found_an_empty_ring_knows_that_a_full_one_has_lost_text)
{
    make();
    open_reader();
    struct lard_cursor cur = {};
    EXPECT_EQ(read_new(reader, &cur), "");
    fill_to(size);
    bool lost = false;
    EXPECT_EQ(read_new(reader, &cur, &lost), std::string(size - 1, 'f'));
    EXPECT_TRUE(lost);
}

TEST_F(lard_reader, nearly_a_whole_ring_at_once_is_not_taken_for_an_overtaking)
{
    make();
    open_reader();
    struct lard_cursor cur = {};
    EXPECT_EQ(lard_puts(writer, "a first line that is longer than the text by which a reader knows its place\n"), 76);
    EXPECT_EQ(read_new(reader, &cur).size(), 76u);
    for (const size_t n : {size - 1, size - 2, size - 30, size - 66}) {
        const std::string text(n, 'z');
        EXPECT_EQ(lard_puts(writer, text.c_str()), static_cast<int>(n));
        bool lost = true;
        EXPECT_EQ(read_new(reader, &cur, &lost), text);
        EXPECT_FALSE(lost) << n;
    }
}

} // namespace
