// Statements about the analyzer's kits: aggregates, text buffers, times.
#include "tavrin/misc.h"

#include "support/fake_clock.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace
{

using lines_t = std::vector<std::string>;

aggr_val taken(const std::vector<uint64_t>& values)
{
    aggr_val av = {};
    for (uint64_t v : values)
        inc_aval(&av, v);
    return av;
}

// What a function wrote to a stream.
template <typename F>
std::string written(F f)
{
    char* mem = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&mem, &len);
    f(fp);
    fclose(fp);
    const std::string s(mem, len);
    free(mem);
    return s;
}

struct text_buffer : ctxt_spec {
    explicit text_buffer(size_t size) : ctxt_spec{} { EXPECT_EQ(0, open_ctxt(this, size)); }
    ~text_buffer() { close_ctxt(this); }
    text_buffer(const text_buffer&) = delete;
    text_buffer& operator=(const text_buffer&) = delete;
    std::string text() const { return buf ? std::string(buf, static_cast<size_t>(textlen)) : "(closed)"; }
};

std::string time_text(uint64_t ms)
{
    char buf[64];
    ms2timestr(ms, buf, sizeof(buf) - 1);
    return buf;
}

} // namespace

// ---- aggregates -----------------------------------------------------------------------------------------------

TEST(aggregate, fields_stand_in_their_order)
{
    EXPECT_EQ(8 * sizeof(uint64_t), sizeof(aggr_val));
    EXPECT_EQ(0U, offsetof(aggr_val, count));
    EXPECT_EQ(8U, offsetof(aggr_val, g_count));
    EXPECT_EQ(16U, offsetof(aggr_val, total));
    EXPECT_EQ(24U, offsetof(aggr_val, g_total));
    EXPECT_EQ(32U, offsetof(aggr_val, min));
    EXPECT_EQ(40U, offsetof(aggr_val, g_min));
    EXPECT_EQ(48U, offsetof(aggr_val, max));
    EXPECT_EQ(56U, offsetof(aggr_val, g_max));
}

TEST(aggregate, first_value_ever_is_every_extreme)
{
    const aggr_val av = taken({7});
    EXPECT_EQ(1U, av.count);
    EXPECT_EQ(1U, av.g_count);
    EXPECT_EQ(7U, av.total);
    EXPECT_EQ(7U, av.g_total);
    EXPECT_EQ(7U, av.min);
    EXPECT_EQ(7U, av.g_min);
    EXPECT_EQ(7U, av.max);
    EXPECT_EQ(7U, av.g_max);
}

TEST(aggregate, later_values_lower_and_raise_the_extremes_of_both_spans)
{
    const aggr_val av = taken({7, 3, 9, 5});
    EXPECT_EQ(4U, av.count);
    EXPECT_EQ(24U, av.total);
    EXPECT_EQ(3U, av.min);
    EXPECT_EQ(9U, av.max);
    EXPECT_EQ(3U, av.g_min);
    EXPECT_EQ(9U, av.g_max);
    EXPECT_EQ(24U, av.g_total);
}

TEST(aggregate, value_of_zero_counts_like_any_other)
{
    const aggr_val av = taken({0, 5});
    EXPECT_EQ(2U, av.count);
    EXPECT_EQ(0U, av.min);
    EXPECT_EQ(5U, av.max);
}

TEST(aggregate, reset_empties_the_local_span_alone)
{
    aggr_val av = taken({7, 3});
    reset_aval(&av);
    EXPECT_EQ(0U, av.count);
    EXPECT_EQ(0U, av.total);
    EXPECT_EQ(0U, av.min);
    EXPECT_EQ(0U, av.max);
    EXPECT_EQ(2U, av.g_count);
    EXPECT_EQ(10U, av.g_total);
    EXPECT_EQ(3U, av.g_min);
    EXPECT_EQ(7U, av.g_max);
}

// Readers of the records rely on the global extremes lagging by one value after a reset.
TEST(aggregate, first_value_after_a_reset_passes_the_global_extremes_by)
{
    aggr_val av = taken({7});
    reset_aval(&av);
    inc_aval(&av, 1);
    EXPECT_EQ(1U, av.min);
    EXPECT_EQ(1U, av.max);
    EXPECT_EQ(7U, av.g_min);
    EXPECT_EQ(7U, av.g_max);
    EXPECT_EQ(2U, av.g_count);
    EXPECT_EQ(8U, av.g_total);
}

TEST(aggregate, second_value_after_a_reset_brings_a_standing_extreme_into_the_global_one)
{
    aggr_val av = taken({7});
    reset_aval(&av);
    inc_aval(&av, 1);
    inc_aval(&av, 4);
    EXPECT_EQ(1U, av.g_min);
    EXPECT_EQ(7U, av.g_max);
}

TEST(aggregate, extreme_of_a_span_of_one_value_stays_out_for_good)
{
    aggr_val av = taken({7});
    for (uint64_t v : {100, 5}) {
        reset_aval(&av);
        inc_aval(&av, v);
    }
    EXPECT_EQ(7U, av.g_max);
    EXPECT_EQ(7U, av.g_min);
}

TEST(aggregate, dump_shows_sum_ahead_of_count)
{
    aggr_val av = taken({10, 20});
    reset_aval(&av);
    inc_aval(&av, 5);
    EXPECT_EQ("AV:\t\tlocal-avg  = 5.00 (V=5/N=1) min(V)/max(V)=5/5, "
              "global-avg = 11.67 (V=35/N=3) min(V)/max(V)=10/20\n",
              written([&](FILE* fp) { dump_aval(fp, "AV", &av); }));
}

TEST(aggregate, record_shows_count_ahead_of_sum)
{
    LogCapture alerts(&g_access_log);
    aggr_val av = taken({10, 20});
    reset_aval(&av);
    inc_aval(&av, 5);
    log_aval_stats("AV-delta", "chan1", 101, -1, &av);
    EXPECT_EQ((lines_t{"STAT AV-delta chan1 101 -1 5.00 1 5 5 5 11.67 3 35 10 20"}), alerts.messages());
}

TEST(aggregate, average_without_values_prints_as_a_nan)
{
    LogCapture alerts(&g_access_log);
    const aggr_val av = {};
    log_aval_stats("PCR-freq", "s", -1, -1, &av);
    char nan_text[16]; // with the sign that the machine gives it
    volatile double zero = 0;
    snprintf(nan_text, sizeof(nan_text), "%.02f", zero / zero);
    ASSERT_NE(nullptr, strstr(nan_text, "nan"));
    const std::string n = nan_text;
    EXPECT_EQ((lines_t{"STAT PCR-freq s -1 -1 " + n + " 0 0 0 0 " + n + " 0 0 0 0"}), alerts.messages());
    EXPECT_EQ("m:\t\tlocal-avg  = " + n + " (V=0/N=0) min(V)/max(V)=0/0, global-avg = " + n +
                  " (V=0/N=0) min(V)/max(V)=0/0\n",
              written([&](FILE* fp) { dump_aval(fp, "m", &av); }));
}

// ---- text buffers ---------------------------------------------------------------------------------------------

TEST(text_buffer, opens_empty_and_zeroed)
{
    text_buffer b(64);
    EXPECT_EQ(64, b.buflen);
    EXPECT_EQ(0, b.textlen);
    ASSERT_NE(nullptr, b.buf);
    EXPECT_EQ(std::string(64, '\0'), std::string(b.buf, 64));
}

TEST(text_buffer, opens_empty_whatever_the_record_held)
{
    ctxt_spec s = {.buf = nullptr, .buflen = 7, .textlen = 5};
    EXPECT_EQ(0, open_ctxt(&s, 64));
    EXPECT_EQ(64, s.buflen);
    EXPECT_EQ(0, s.textlen);
    close_ctxt(&s);
}

#ifndef __SANITIZE_ADDRESS__ // it ends the process over a size like this
TEST(text_buffer, without_memory_stays_closed)
{
    LogCapture log;
    ctxt_spec s = {};
    EXPECT_EQ(-1, open_ctxt(&s, SIZE_MAX / 2));
    EXPECT_EQ(nullptr, s.buf);
    EXPECT_TRUE(log.contains("open_ctxt: calloc("));
}
#endif

TEST(text_buffer, close_zeroes_the_record_and_may_be_repeated)
{
    ctxt_spec s = {};
    ASSERT_EQ(0, open_ctxt(&s, 64));
    add_ctxt_line(&s, "x");
    for (int i = 0; i < 2; i++) {
        close_ctxt(&s);
        EXPECT_EQ(nullptr, s.buf);
        EXPECT_EQ(0, s.buflen);
        EXPECT_EQ(0, s.textlen);
    }
}

TEST(text_buffer, lines_stand_behind_each_other_with_a_line_feed)
{
    text_buffer b(64);
    add_ctxt_line(&b, "pid=%d", 101);
    add_ctxt_line(&b, "%s", "");
    add_ctxt_line(&b, "end");
    EXPECT_EQ("pid=101\n\nend\n", b.text());
}

TEST(text_buffer, line_that_just_fits_is_whole)
{
    text_buffer b(64);
    add_ctxt_line(&b, "%s", std::string(62, 'a').c_str());
    EXPECT_EQ(std::string(62, 'a') + "\n", b.text());
}

TEST(text_buffer, line_that_is_too_long_is_cut_and_still_ended)
{
    text_buffer b(64);
    add_ctxt_line(&b, "%s", std::string(63, 'a').c_str());
    EXPECT_EQ(std::string(62, 'a') + "\n", b.text());
}

TEST(text_buffer, line_behind_a_cut_one_is_dropped_with_a_warning)
{
    LogCapture log;
    text_buffer b(64);
    add_ctxt_line(&b, "%s", std::string(100, 'a').c_str());
    EXPECT_TRUE(log.messages().empty());
    add_ctxt_line(&b, "b");
    EXPECT_EQ(std::string(62, 'a') + "\n", b.text());
    EXPECT_EQ((lines_t{"add_ctxt_line: PMT buffer may overflow, -1 bytes left"}), log.messages(ll::warning));
}

TEST(text_buffer, fifteen_bytes_left_take_no_line_and_sixteen_do)
{
    LogCapture log;
    for (const auto& [used, expected_left] : {std::pair<size_t, int>{46, 15}, {45, 16}}) {
        log.clear();
        text_buffer b(64);
        add_ctxt_line(&b, "%s", std::string(used, 'a').c_str()); // and its line feed
        add_ctxt_line(&b, "b");
        if (expected_left == 15) {
            EXPECT_EQ(std::string(46, 'a') + "\n", b.text());
            EXPECT_EQ((lines_t{"add_ctxt_line: PMT buffer may overflow, 15 bytes left"}), log.messages());
        } else {
            EXPECT_EQ(std::string(45, 'a') + "\nb\n", b.text());
            EXPECT_TRUE(log.messages().empty());
        }
    }
}

TEST(text_buffer, closed_one_takes_no_line)
{
    LogCapture log;
    ctxt_spec s = {};
    add_ctxt_line(&s, "x");
    EXPECT_EQ(0, s.textlen);
    EXPECT_EQ((lines_t{"add_ctxt_line: PMT buffer may overflow, -2 bytes left"}), log.messages());
}

TEST(text_buffer, replace_moves_the_buffer_and_leaves_the_source_closed)
{
    text_buffer dest(32);
    text_buffer src(64);
    add_ctxt_line(&dest, "old");
    add_ctxt_line(&src, "new");
    const char* moved = src.buf;
    replace_ctxt(&dest, &src);
    EXPECT_EQ(moved, dest.buf);
    EXPECT_EQ(64, dest.buflen);
    EXPECT_EQ("new\n", dest.text());
    EXPECT_EQ(nullptr, src.buf);
    EXPECT_EQ(0, src.buflen);
    EXPECT_EQ(0, src.textlen);
    close_ctxt(&src);
    EXPECT_EQ("new\n", dest.text());
}

TEST(text_buffer, comparison_finds_length_and_content)
{
    text_buffer a(64);
    text_buffer b(32);
    EXPECT_EQ(0, cmp_ctxt(&a, &b));
    add_ctxt_line(&a, "one");
    EXPECT_EQ(1, cmp_ctxt(&a, &b));
    add_ctxt_line(&b, "two");
    EXPECT_NE(0, cmp_ctxt(&a, &b));
    b.textlen = 0;
    add_ctxt_line(&b, "one");
    EXPECT_EQ(0, cmp_ctxt(&a, &b));
}

TEST(text_buffer, closed_one_equals_what_is_as_long)
{
    text_buffer a(64);
    const ctxt_spec closed = {};
    EXPECT_EQ(0, cmp_ctxt(&a, &closed));
    EXPECT_EQ(0, cmp_ctxt(&closed, &closed));
    add_ctxt_line(&a, "one");
    EXPECT_EQ(1, cmp_ctxt(&closed, &a));
    const ctxt_spec without_buf = {.buf = nullptr, .buflen = 0, .textlen = 4};
    EXPECT_EQ(0, cmp_ctxt(&a, &without_buf));
    EXPECT_EQ(0, cmp_ctxt(&without_buf, &a));
}

TEST(text_buffer, dump_shows_title_and_text)
{
    text_buffer b(64);
    add_ctxt_line(&b, "one");
    add_ctxt_line(&b, "two");
    EXPECT_EQ("Title:\none\ntwo\n", written([&](FILE* fp) { dump_ctxt(fp, "Title:", &b); }));
    EXPECT_EQ("one\ntwo\n", written([&](FILE* fp) { dump_ctxt(fp, nullptr, &b); }));
}

TEST(text_buffer, dump_of_an_empty_one_shows_no_title_either)
{
    text_buffer b(64);
    const ctxt_spec closed = {};
    EXPECT_EQ("", written([&](FILE* fp) { dump_ctxt(fp, "Title:", &b); }));
    EXPECT_EQ("", written([&](FILE* fp) { dump_ctxt(fp, "Title:", &closed); }));
}

// ---- times ----------------------------------------------------------------------------------------------------

TEST(time_text, shows_hours_minutes_seconds_and_ms)
{
    EXPECT_EQ("00:00:00.000", time_text(0));
    EXPECT_EQ("00:00:00.999", time_text(999));
    EXPECT_EQ("00:00:59.000", time_text(59000));
    EXPECT_EQ("00:59:59.999", time_text(3599999));
    EXPECT_EQ("01:01:01.001", time_text(3661001));
}

TEST(time_text, does_not_cut_hours_at_a_day)
{
    EXPECT_EQ("24:00:00.000", time_text(uint64_t{24} * 3600000));
    EXPECT_EQ("100:00:00.000", time_text(uint64_t{100} * 3600000));
    EXPECT_EQ("5124095576030:25:51.615", time_text(UINT64_MAX));
}

TEST(time_text, fits_a_length_of_its_own_and_a_terminator)
{
    char buf[16];
    memset(buf, 'x', sizeof(buf));
    ms2timestr(3661001, buf, 13);
    EXPECT_STREQ("01:01:01.001", buf);
    EXPECT_EQ('x', buf[13]);
}

TEST(time_text_death, length_too_small_is_asserted)
{
    char buf[16];
    EXPECT_DEATH(ms2timestr(3661001, buf, 12), "n < \\(ssize_t\\)slen");
}

TEST(pcr_delta, is_in_whole_ms)
{
    EXPECT_EQ(0U, pcr_delta_ms(1000, 1089));
    EXPECT_EQ(1U, pcr_delta_ms(1000, 1090));
    EXPECT_EQ(1000U, pcr_delta_ms(90000, 180000));
}

TEST(pcr_delta, follows_the_clock_through_its_wrap)
{
    const uint64_t P2_33 = uint64_t{1} << 33;
    EXPECT_EQ(200U, pcr_delta_ms(P2_33 - 9000, 9000));
    EXPECT_EQ(499U, pcr_delta_ms(P2_33 - 44999, 0));
}

TEST(pcr_delta, backwards_is_zero_with_a_warning)
{
    LogCapture log;
    EXPECT_EQ(0U, pcr_delta_ms(100, 50));
    EXPECT_EQ(1U, log.count("PCR last=50 < first=100 diff=18446744073709551566"));
}

TEST(pcr_delta, of_the_whole_range_fits_32_bits)
{
    EXPECT_EQ(95443717U, pcr_delta_ms(0, (uint64_t{1} << 33) - 1));
}

TEST(times, now_is_the_monotonic_clock)
{
    timespec before, now, after;
    clock_gettime(CLOCK_MONOTONIC, &before);
    set_now(&now);
    clock_gettime(CLOCK_MONOTONIC, &after);
    EXPECT_LE(before.tv_sec * 1000000000 + before.tv_nsec, now.tv_sec * 1000000000 + now.tv_nsec);
    EXPECT_GE(after.tv_sec * 1000000000 + after.tv_nsec, now.tv_sec * 1000000000 + now.tv_nsec);
}

TEST(times, ms_of_a_time_are_cut)
{
    const timespec t = {5, 1999999};
    EXPECT_EQ(5001, tms2ms(&t));
}

TEST(times, seconds_of_minus_one_are_minus_one_ms)
{
    const timespec t = {-1, 500000000};
    EXPECT_EQ(-1, tms2ms(&t));
}

TEST(times, copy_is_equal)
{
    const timespec t = {5, 7};
    timespec c = {};
    cpy_timespec(&c, &t);
    EXPECT_EQ(5, c.tv_sec);
    EXPECT_EQ(7, c.tv_nsec);
}

TEST(times, difference_is_absolute)
{
    const timespec a = {10, 100};
    const timespec b = {12, 50};
    for (const auto& [x, y] : {std::pair{&a, &b}, {&b, &a}}) {
        timespec d = {};
        tspec_diff(x, y, &d);
        EXPECT_EQ(1, d.tv_sec);
        EXPECT_EQ(999999950, d.tv_nsec);
        EXPECT_EQ(1999, diff_ms(x, y));
    }
}

TEST(times, difference_within_a_second_looks_at_nanoseconds)
{
    const timespec a = {10, 2000000};
    const timespec b = {10, 5000000};
    EXPECT_EQ(3, diff_ms(&a, &b));
    EXPECT_EQ(3, diff_ms(&b, &a));
    EXPECT_EQ(0, diff_ms(&a, &a));
}

TEST(times, difference_may_overwrite_either_time)
{
    timespec a = {10, 0};
    timespec b = {13, 0};
    tspec_diff(&a, &b, &a);
    EXPECT_EQ(3, a.tv_sec);
    a = {10, 0};
    tspec_diff(&a, &b, &b);
    EXPECT_EQ(3, b.tv_sec);
}

TEST(times, absent_time_stands_for_now)
{
    fake_clock::set(100, 500000000);
    const timespec earlier = {98, 0};
    const timespec later = {101, 0};
    EXPECT_EQ(2500, diff_ms(&earlier, nullptr));
    EXPECT_EQ(2500, diff_ms(nullptr, &earlier));
    EXPECT_EQ(500, diff_ms(&later, nullptr));
    EXPECT_EQ(0, diff_ms(nullptr, nullptr));
    fake_clock::release();
}
